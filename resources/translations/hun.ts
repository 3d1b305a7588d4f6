<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="hu_HU" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>Fájlok szinkronizálása e számítógép és egy kiszolgáló között</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>szinkronizálás;felhő;fájlok;mappák;megosztás;biztonsági mentés;feltöltés;tárhely;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>A %1 készen áll.</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>A %1 előkészítése…</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Brimlock-kliens</translation>
    </message>
</context>
</TS>
