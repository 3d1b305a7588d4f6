<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="es_ES" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>Sincronizar archivos entre este equipo y un servidor</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>sincronización;sincronizar;nube;archivos;carpetas;compartir;copia de seguridad;subir;almacenamiento;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>El %1 está listo.</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>Inicializando el %1…</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Cliente Brimlock</translation>
    </message>
</context>
</TS>
