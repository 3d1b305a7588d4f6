#ifndef BRIMLOCK_LAUNCHER_STRINGS_STR_TABLE_H
#define BRIMLOCK_LAUNCHER_STRINGS_STR_TABLE_H

#include <QString>

// Register and unregister the bundle of translations, ":/<language code>.qm". Both return 1. The bundle is registered
// when the program is loaded; a second registration is harmless.
int qInitResources_texts();
int qCleanupResources_texts();

// The texts of the client's user interface, by number. Ids and keys are the same as in the client itself; the
// launcher shows three of them.
class StrTable
{
public:
    static constexpr int NUM_STRING_IDS = 1181;

    // The rows that the launcher shows. The first two take the client's name as their argument.
    static constexpr int CLIENT_READY = 516;
    static constexpr int CLIENT_INITIALIZING = 531;
    static constexpr int CLIENT_NAME = 847;

    // Fills the table. To be called once, before all other functions.
    static void InitStrTable();

    // The text of row `id`, 0 to NUM_STRING_IDS - 1, in the language of the installed translator, else in English. The
    // escapes \n and \t in a text are replaced by a line break and a tab. May be called from any thread.
    static QString LoadStr(int id);

    // The same text with %1 replaced by the client's name.
    static QString WithClientName(int id);

    // The id of the key, in any letter case, or -1.
    static int LookupStrID(QString key);

    // The table itself, null before InitStrTable() and only read after it.
    static const char *stab[NUM_STRING_IDS]; // English texts, in UTF-8
    static const char *ktab[NUM_STRING_IDS]; // keys
};

#endif
