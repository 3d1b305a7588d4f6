#include "appfolder/version-file.h"

#include <cstdlib>

#include <QFileInfo>
#include <QSettings>
#include <QStringList>

namespace
{
// A larger file is not a version file, and reading it would take its size in memory. Reading a device or a FIFO might
// never end.
constexpr qint64 kMaxBytes = 1 << 20;
} // namespace

std::map<std::string, std::string> ReadVersionFile(const std::string &path)
{
    std::map<std::string, std::string> pairs;
    const QFileInfo file(QString::fromStdString(path));
    if (file.isFile() && file.size() <= kMaxBytes) {
        QSettings settings(file.filePath(), QSettings::IniFormat);
        settings.beginGroup(QStringLiteral("Version"));
        for (const QString &key : settings.childKeys()) {
            pairs[key.toStdString()] = settings.value(key).toString().toStdString();
        }
    }
    return pairs;
}

int BuildNumber(const std::string &text)
{
    return atoi(text.c_str());
}
