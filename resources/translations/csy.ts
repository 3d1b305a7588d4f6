<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="cs_CZ" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>Synchronizace souborů mezi tímto počítačem a serverem</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>synchronizace;cloud;soubory;složky;sdílení;záloha;zálohování;nahrávání;úložiště;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>%1 je připraven.</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>%1 se inicializuje…</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Klient Brimlock</translation>
    </message>
</context>
</TS>
