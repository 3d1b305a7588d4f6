#ifndef BRIMLOCK_FCT_QT_UI_PATH_MANAGER_H
#define BRIMLOCK_FCT_QT_UI_PATH_MANAGER_H

#include <QHash>
#include <QString>

// The registry of named paths. It is filled at start-up, before there is a second thread, and only read afterwards.
class UIPathManager
{
public:
    static UIPathManager *getInstance();

    void setPath(const QString &key, const QString &value) { paths.insert(key, value); }

    // The path; empty for an unknown key.
    QString getPath(const QString &key) const { return paths.value(key); }

private:
    UIPathManager() = default;

    QHash<QString, QString> paths;
};

#endif
