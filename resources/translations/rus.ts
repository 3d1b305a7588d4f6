<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ru_RU" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>Синхронизация файлов между этим компьютером и сервером</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>синхронизация;облако;файлы;папки;общий доступ;резервная копия;загрузка;хранилище;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>%1 готов к работе.</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>%1 инициализируется…</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Клиент Brimlock</translation>
    </message>
</context>
</TS>
