// menu-texts: prints the lines "Name", "Comment" and "Keywords" of the menu entry, in English and in each language of
// the bundle. Fails, with a message on standard error, if a translation names no locale or does not have one of the
// texts.
#include <QCoreApplication>
#include <QDir>
#include <QTextStream>
#include <QTranslator>

#include "launcher/strings/str-table.h"

namespace
{
constexpr char kComment[] = QT_TRANSLATE_NOOP("desktop", "Keep files in sync between this computer and a server");
// Words that people search for, without the name. Each ends with ";".
constexpr char kKeywords[] = QT_TRANSLATE_NOOP("desktop", "sync;cloud;files;folders;share;backup;upload;storage;");

// The locales of the keys "KEY[LOCALE]", none for English, which is the entry's default. The country is named only if
// the bundle has two variants of the language; otherwise the text is for all countries of the language. A desktop does
// not look for another locale's text, so the launcher's choice for these is repeated here.
QStringList MenuLocales(const QString &locale)
{
    const QString language = locale.section(QLatin1Char('_'), 0, 0);
    if (language == QLatin1String("en")) {
        return {};
    }
    if (locale == QLatin1String("zh_CN")) {
        return {locale, QStringLiteral("zh_SG")};
    }
    if (locale == QLatin1String("zh_TW")) {
        return {locale, QStringLiteral("zh_HK")};
    }
    if (language == QLatin1String("nb")) {
        return {language, QStringLiteral("nn")};
    }
    return {locale == QLatin1String("pt_BR") ? locale : language};
}
} // namespace

int main(int argc, char *argv[])
{
    const QCoreApplication app(argc, argv);
    StrTable::InitStrTable();
    struct Key {
        const char *name;
        const char *context;
        const char *english;
        QString lines;
    };
    Key keys[] = {{"Name", "global", StrTable::stab[StrTable::CLIENT_NAME], {}},
                  {"Comment", "desktop", kComment, {}},
                  {"Keywords", "desktop", kKeywords, {}}};
    for (Key &key : keys) {
        key.lines = QStringLiteral("%1=%2\n").arg(QLatin1String(key.name), QLatin1String(key.english));
    }
    QTextStream errors(stderr);
    for (const QFileInfo &file : QDir(QStringLiteral(":/")).entryInfoList(QDir::Files)) {
        QTranslator translator;
        const bool loaded = translator.load(file.filePath());
        const QString source = file.completeBaseName() + QStringLiteral(".ts");
        if (!loaded || translator.language().isEmpty()) {
            errors << source << ": does not say language=\"...\" in its element TS\n";
            return 1;
        }
        for (Key &key : keys) {
            const QString text = translator.translate(key.context, key.english);
            if (text.isEmpty()) {
                errors << source << ": does not translate '" << key.english << "'\n";
                return 1;
            }
            if (key.english == kKeywords && !text.endsWith(QLatin1Char(';'))) {
                errors << source << ": the keywords do not end with ';'\n";
                return 1;
            }
            for (const QString &locale : MenuLocales(translator.language())) {
                key.lines += QStringLiteral("%1[%2]=%3\n").arg(QLatin1String(key.name), locale, text);
            }
        }
    }
    QTextStream lines(stdout);
    lines.setCodec("UTF-8");
    for (const Key &key : keys) {
        lines << key.lines;
    }
    return 0;
}
