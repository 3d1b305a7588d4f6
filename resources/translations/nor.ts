<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="nb_NO" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>Synkroniser filer mellom denne datamaskinen og en server</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>synkronisering;sky;skylagring;filer;mapper;deling;sikkerhetskopi;opplasting;lagring;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>%1en er klar.</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>Initialiserer %1en&#xa0;…</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Brimlock-klient</translation>
    </message>
</context>
</TS>
