#ifndef BRIMLOCK_FCT_QT_VELTRANO_LOCALE_H
#define BRIMLOCK_FCT_QT_VELTRANO_LOCALE_H

#include <QString>

// The language of the user interface.
class VeltranoLocale
{
public:
    static VeltranoLocale *getInstance();

    // One of the three-letter codes of resources/translations; "enu" (English) for every other language. Reads the
    // environment as gettext does. The first of LC_ALL, LC_MESSAGES and LANG that is set and not empty names the
    // locale. "C" and "POSIX" are English. For any other locale, the languages listed in LANGUAGE are preferred to it,
    // and the first one that has a code is used. An entry "C" or "POSIX" is English, and "pt" without a country is
    // European Portuguese. If no entry has a code, the language of the locale is used; gettext would show English.
    QString getDefaultLanguage() const;

private:
    VeltranoLocale() = default;
};

#endif
