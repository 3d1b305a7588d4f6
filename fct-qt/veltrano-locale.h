#ifndef BRIMLOCK_FCT_QT_VELTRANO_LOCALE_H
#define BRIMLOCK_FCT_QT_VELTRANO_LOCALE_H

#include <QString>

// The language of the user interface.
class VeltranoLocale
{
public:
    static VeltranoLocale *getInstance();

    // One of the three-letter codes of resources/translations, "enu" for every other language. Follows the environment
    // as gettext does: the first of LC_ALL, LC_MESSAGES and LANG that is set names the locale; unless that is
    // "C" or "POSIX", the languages listed in LANGUAGE come before it. The first one that has a code wins; an
    // entry "C" or "POSIX" is English, a "pt" without a country European Portuguese. Where nothing in LANGUAGE
    // has a code, the locale's own language is taken; that is kinder than gettext, which shows English then.
    QString getDefaultLanguage() const;

private:
    VeltranoLocale() = default;
};

#endif
