#include "fct-qt/veltrano-locale.h"

#include <QLocale>
#include <QStringList>

namespace
{
QString LocaleName()
{
    for (const char *variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        QString name = QString::fromLatin1(qgetenv(variable));
        if (!name.isEmpty()) {
            return name;
        }
    }
    return QStringLiteral("C");
}

// The user's languages as locale names, the preferred one first.
QStringList WantedLanguages()
{
    const QString locale = LocaleName();
    if (locale == QLatin1String("C") || locale == QLatin1String("POSIX")) {
        return {};
    }
    QStringList wanted = QString::fromLatin1(qgetenv("LANGUAGE")).split(QLatin1Char(':'), Qt::SkipEmptyParts);
    wanted.append(locale);
    return wanted;
}

// The three-letter code, or null for a language that has none.
const char *LanguageCode(const QString &name)
{
    if (name == QLatin1String("C") || name == QLatin1String("POSIX")) {
        return "enu";
    }
    const QLocale locale(name);
    switch (locale.language()) {
    case QLocale::Chinese:
        return locale.script() == QLocale::TraditionalHanScript ? "cht" : "chs";
    case QLocale::Czech:
        return "csy";
    case QLocale::Danish:
        return "dan";
    case QLocale::Dutch:
        return "nld";
    case QLocale::English:
        return "enu";
    case QLocale::French:
        return "fre";
    case QLocale::German:
        return "ger";
    case QLocale::Hungarian:
        return "hun";
    case QLocale::Italian:
        return "ita";
    case QLocale::Japanese:
        return "jpn";
    case QLocale::Korean:
        return "krn";
    case QLocale::NorwegianBokmal:
    case QLocale::NorwegianNynorsk:
        return "nor";
    case QLocale::Polish:
        return "plk";
    case QLocale::Portuguese:
        // For QLocale "pt" is the Portuguese of Brazil, for gettext that of Portugal.
        return name.contains(QLatin1String("BR")) ? "ptb" : "ptg";
    case QLocale::Russian:
        return "rus";
    case QLocale::Spanish:
        return "spn";
    case QLocale::Swedish:
        return "sve";
    case QLocale::Thai:
        return "tha";
    case QLocale::Turkish:
        return "trk";
    default:
        return nullptr;
    }
}
} // namespace

VeltranoLocale *VeltranoLocale::getInstance()
{
    static VeltranoLocale instance;
    return &instance;
}

QString VeltranoLocale::getDefaultLanguage() const
{
    for (const QString &name : WantedLanguages()) {
        if (const char *code = LanguageCode(name)) {
            return QString::fromLatin1(code);
        }
    }
    return QStringLiteral("enu");
}
