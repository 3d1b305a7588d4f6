<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>在此计算机与服务器之间同步文件</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>同步;云;云盘;文件;文件夹;共享;备份;上传;存储;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>%1已就绪。</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>正在初始化 %1…</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Brimlock 客户端</translation>
    </message>
</context>
</TS>
