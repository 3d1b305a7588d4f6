<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="nl_NL" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>Bestanden synchroniseren tussen deze computer en een server</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>synchronisatie;synchroniseren;cloud;bestanden;mappen;delen;back-up;uploaden;opslag;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>De %1 is gereed.</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>De %1 wordt geïnitialiseerd…</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Brimlock-client</translation>
    </message>
</context>
</TS>
