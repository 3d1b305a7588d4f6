<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="sv_SE" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>Synkronisera filer mellan den här datorn och en server</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>synkronisering;moln;molntjänst;filer;mappar;delning;säkerhetskopia;uppladdning;lagring;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>%1en är redo.</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>Initierar %1en&#xa0;…</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Brimlock-klient</translation>
    </message>
</context>
</TS>
