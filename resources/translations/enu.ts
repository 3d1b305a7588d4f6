<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en_US" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>Keep files in sync between this computer and a server</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>sync;cloud;files;folders;share;backup;upload;storage;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>%1 is ready.</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>%1 is initializing...</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Brimlock Client</translation>
    </message>
</context>
</TS>
