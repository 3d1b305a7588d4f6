<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ko_KR" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>이 컴퓨터와 서버 간에 파일을 동기화합니다</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>동기화;클라우드;파일;폴더;공유;백업;업로드;저장소;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>%1가 준비되었습니다.</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>%1 초기화 중...</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Brimlock 클라이언트</translation>
    </message>
</context>
</TS>
