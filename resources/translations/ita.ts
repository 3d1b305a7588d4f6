<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="it_IT" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>Sincronizza i file tra questo computer e un server</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>sincronizzazione;sincronizzare;cloud;file;cartelle;condivisione;backup;caricamento;archiviazione;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>Il %1 è pronto.</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>Inizializzazione del %1 in corso…</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Client Brimlock</translation>
    </message>
</context>
</TS>
