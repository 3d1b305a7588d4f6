<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fr_FR" sourcelanguage="en_US">
<context>
    <name>desktop</name>
    <message>
        <source>Keep files in sync between this computer and a server</source>
        <translation>Synchroniser les fichiers entre cet ordinateur et un serveur</translation>
    </message>
    <message>
        <source>sync;cloud;files;folders;share;backup;upload;storage;</source>
        <translation>synchronisation;synchroniser;cloud;nuage;fichiers;dossiers;partage;sauvegarde;téléversement;stockage;</translation>
    </message>
</context>
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>Le %1 est prêt.</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>Initialisation du %1…</translation>
    </message>
    <message>
        <source>Brimlock Client</source>
        <translation>Client Brimlock</translation>
    </message>
</context>
</TS>
