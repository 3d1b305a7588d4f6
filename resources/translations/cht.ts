<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_TW" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>在這部電腦與伺服器之間同步檔案</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>同步;雲端;雲端硬碟;檔案;資料夾;共用;分享;備份;上傳;儲存空間;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>%1已就緒。</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>正在初始化 %1…</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Brimlock 用戶端</translation>
    </message>
</context>
</TS>
