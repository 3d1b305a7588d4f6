#ifndef BRIMLOCK_APPFOLDER_RECOVERY_H
#define BRIMLOCK_APPFOLDER_RECOVERY_H

#include <functional>
#include <optional>

#include "appfolder/app-folder.h"
#include "appfolder/upgrade-journal.h"

struct Recovery {
    enum Condition {
        INTACT,        // no upgrade was interrupted, or it has been finished or undone
        UPGRADE_DUE,   // the app folder may hold an incomplete copy, or holds an old backup: it must be replaced
        NOT_RECOVERED, // the recovery failed: the app folder must not be changed until a later start recovers it
    };

    Condition condition = INTACT;
    std::optional<UpgradeJournal::Record> record; // what the journal is to hold while no upgrade is made
};

// Finishes or undoes an upgrade that was interrupted. When the app folder is missing, makes the backup with the highest
// build the app folder. Calls `stopClient` before it changes the contents of the app folder. Logs one NOTE when there
// was something to do, and ERROR lines with NOT_RECOVERED. At last removes what was discarded. Does nothing for an
// empty path.
Recovery Recover(const AppFolder &app, const UpgradeJournal &journal, const std::function<void()> &stopClient);

#endif
