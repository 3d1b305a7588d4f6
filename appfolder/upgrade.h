#ifndef BRIMLOCK_APPFOLDER_UPGRADE_H
#define BRIMLOCK_APPFOLDER_UPGRADE_H

#include <string>

#include "appfolder/app-folder.h"
#include "appfolder/recovery.h"
#include "appfolder/upgrade-journal.h"
#include "fileop/scoped-fd.h"

// One replacement of the app folder. Each step is written to the journal before it is done. So whenever the process
// ends, Recover() finds the complete old copy or the complete new one.
//
// The order is MoveAside(), BeginCopy(), the copying, Flush(), and then Commit() or RollBack(). Where the user's folder
// may not be written, the steps are the same without a journal.
class Upgrade
{
public:
    // `recovery` is what Recover() has returned for this app folder; its condition is not NOT_RECOVERED. Keeps
    // references to the first two.
    Upgrade(const AppFolder &app, const UpgradeJournal &journal, const Recovery &recovery);

    // Tries to create the user's folder. Then moves the app folder, if there is one, to the first backup name that can
    // be used. Returns 0, or -1 with ERROR lines: the app folder and the journal are then as before. Where the file
    // system does not rename the folder, a copy of it becomes the backup; if the app folder can then not be removed and
    // what is missing in it not be copied back, one ERROR line says so, and the next Recover() tries again.
    int MoveAside();

    // Whether MoveAside() has found an app folder.
    bool HasOldCopy() const { return hasOldCopy; }

    // To be called before the first byte of the new copy is written. Returns 0, or -1 with ERROR lines when the copy
    // must not be made; the old copy is then the app folder again, as after RollBack().
    int BeginCopy();

    // Flushes the new copy to disk and records that it is complete. Returns 0, or -1 with one ERROR line: then call
    // RollBack().
    int Flush();

    // Removes the backup, and those with lower numbers, which earlier upgrades may have left. To be called after
    // Flush().
    void Commit();

    // Makes the backup the app folder again; without an old copy, leaves what has been copied. Returns 0, or -1 with
    // one ERROR line; the backup then keeps its name, and the next Recover() tries again.
    int RollBack();

private:
    enum MoveResult { MOVED, TRY_NEXT, GIVE_UP };
    MoveResult MoveTo(int n);
    MoveResult MoveCopyTo(int n);
    bool WriteRecord(UpgradeJournal::State state);
    bool RestoreJournal() const;

    const AppFolder &app;
    const UpgradeJournal &journal;
    const Recovery recovery;
    bool hasOldCopy = false;
    bool hasJournal;
    bool isFirstRecord = true;
    UpgradeJournal::Record record;
    bool isRenamed = true; // false: the file system does not rename the app folder
    std::string oldCopy;   // the copy of the app folder that is made then; empty: it could not be made
    ScopedFd userFolder;   // open while the new copy is made
};

#endif
