// menu-texts: prints the lines "Name" and "Comment" of the menu entry, in English and in each language of the bundle.
// Fails, with a message on standard error, if a translation names no locale or does not have one of the two texts.
#include <QCoreApplication>
#include <QDir>
#include <QTextStream>
#include <QTranslator>

#include "launcher/strings/str-table.h"

namespace
{
constexpr char kComment[] = QT_TRANSLATE_NOOP("desktop", "Keep files in sync between this computer and a server");

// The suffix of a key: "[LOCALE]", or nothing for English, which is the entry's default. The country is named only if
// the bundle has two variants of the language; otherwise the text is for all countries of the language.
QString KeySuffix(const QString &locale)
{
    const QString language = locale.section(QLatin1Char('_'), 0, 0);
    if (language == QLatin1String("en")) {
        return {};
    }
    const bool needsCountry = language == QLatin1String("zh") || locale == QLatin1String("pt_BR");
    return QStringLiteral("[%1]").arg(needsCountry ? locale : language);
}
} // namespace

int main(int argc, char *argv[])
{
    const QCoreApplication app(argc, argv);
    StrTable::InitStrTable();
    const char *const clientName = StrTable::stab[StrTable::CLIENT_NAME];
    QTextStream errors(stderr);
    QString names = QStringLiteral("Name=%1\n").arg(QLatin1String(clientName));
    QString comments = QStringLiteral("Comment=%1\n").arg(QLatin1String(kComment));
    for (const QFileInfo &file : QDir(QStringLiteral(":/")).entryInfoList(QDir::Files)) {
        QTranslator translator;
        const bool loaded = translator.load(file.filePath());
        const QString source = file.completeBaseName() + QStringLiteral(".ts");
        if (!loaded || translator.language().isEmpty()) {
            errors << source << ": does not say language=\"...\" in its element TS\n";
            return 1;
        }
        const QString name = translator.translate("global", clientName);
        const QString comment = translator.translate("desktop", kComment);
        if (name.isEmpty() || comment.isEmpty()) {
            errors << source << ": does not translate '" << (name.isEmpty() ? clientName : kComment) << "'\n";
            return 1;
        }
        const QString suffix = KeySuffix(translator.language());
        if (!suffix.isEmpty()) {
            names += QStringLiteral("Name%1=%2\n").arg(suffix, name);
            comments += QStringLiteral("Comment%1=%2\n").arg(suffix, comment);
        }
    }
    QTextStream lines(stdout);
    lines.setCodec("UTF-8");
    lines << names << comments;
    return 0;
}
