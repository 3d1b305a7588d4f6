<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="pt_BR" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>Sincronize arquivos entre este computador e um servidor</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>sincronização;sincronizar;nuvem;arquivos;pastas;compartilhar;backup;upload;armazenamento;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>O %1 está pronto.</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>Inicializando o %1...</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Cliente Brimlock</translation>
    </message>
</context>
</TS>
