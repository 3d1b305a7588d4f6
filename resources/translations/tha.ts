<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="th_TH" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>ซิงค์ไฟล์ระหว่างคอมพิวเตอร์เครื่องนี้กับเซิร์ฟเวอร์</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>ซิงค์;คลาวด์;ไฟล์;โฟลเดอร์;แชร์;สำรองข้อมูล;อัปโหลด;ที่เก็บข้อมูล;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>%1 พร้อมใช้งานแล้ว</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>กำลังเตรียมใช้งาน%1...</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>ไคลเอ็นต์ Brimlock</translation>
    </message>
</context>
</TS>
