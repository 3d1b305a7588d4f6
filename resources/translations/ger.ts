<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>Dateien zwischen diesem Rechner und einem Server abgleichen</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>Synchronisierung;Abgleich;Cloud;Dateien;Ordner;teilen;Freigabe;Sicherung;Backup;hochladen;Speicher;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>%1 ist bereit.</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>%1 wird initialisiert&#xa0;…</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Brimlock-Client</translation>
    </message>
</context>
</TS>
