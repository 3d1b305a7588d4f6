#ifndef BRIMLOCK_LAUNCHER_LANGUAGE_H
#define BRIMLOCK_LAUNCHER_LANGUAGE_H

class QtSingleApplication;

// Sets the application up for the user's language: translator, string table and font. A language without
// translations stays English. The choice lasts until the process ends.
void initializeLanguage(QtSingleApplication &app);

#endif
