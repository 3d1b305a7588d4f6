#ifndef BRIMLOCK_LAUNCHER_LANGUAGE_H
#define BRIMLOCK_LAUNCHER_LANGUAGE_H

class QtSingleApplication;

// Installs translator, string table and font for the user's language, until the process ends. Without a translation the
// texts are English.
void initializeLanguage(QtSingleApplication &app);

#endif
