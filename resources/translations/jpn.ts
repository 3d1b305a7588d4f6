<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ja_JP" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>このコンピューターとサーバーの間でファイルを同期します</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>同期;クラウド;ファイル;フォルダー;共有;バックアップ;アップロード;ストレージ;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>%1の準備ができました。</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>%1を初期化しています…</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Brimlock クライアント</translation>
    </message>
</context>
</TS>
