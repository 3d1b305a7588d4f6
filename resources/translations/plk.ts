<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="pl_PL" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>Synchronizacja plików między tym komputerem a serwerem</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>synchronizacja;chmura;pliki;foldery;udostępnianie;kopia zapasowa;przesyłanie;magazyn;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>%1 jest gotowy.</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>Trwa inicjowanie programu %1…</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Klient Brimlock</translation>
    </message>
</context>
</TS>
