<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="tr_TR" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>Dosyaları bu bilgisayar ile bir sunucu arasında eşitleyin</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>eşitleme;senkronizasyon;bulut;dosyalar;klasörler;paylaşma;yedekleme;yükleme;depolama;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>%1 hazır.</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>%1 başlatılıyor...</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Brimlock İstemcisi</translation>
    </message>
</context>
</TS>
