#ifndef BRIMLOCK_SERVICE_APP_FOLDER_H
#define BRIMLOCK_SERVICE_APP_FOLDER_H

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "fileop/scoped-fd.h"
#include "service/upgrade-journal.h"
#include "service/user-folder-lock.h"

// The name that the app folder `base` gets while it is replaced; `n` is 0 to UpgradeJournal::kBackupNames - 1.
std::string GetAppBackupDir(const std::string &base, int n);

// Replaces the user's copy of the client so that, whenever the process ends, the next start finds the complete old copy
// or the complete new one. Each step is written to the journal before it is done.
//
// One upgrade: Begin(), MoveAside() where there is an old copy, BeginCopy(), the copying itself, Flush(), then Commit()
// or RollBack(). Without a journal, because the folder beside the app folder may not be written, the steps are the same
// and nothing is recorded.
class AppFolder
{
public:
    // An empty path is no folder: there is nothing to recover, and nothing is recorded.
    explicit AppFolder(const std::string &appPath);

    // Locks the folder in which the app folder lies; see UserFolderLock.
    UserFolderLock::Result Lock(std::chrono::milliseconds timeout);
    void Unlock() { lock.Release(); }

    enum Condition {
        INTACT,        // as the last upgrade has left it
        UPGRADE_DUE,   // it may hold an incomplete copy, or a backup instead of the missing one: to be replaced
        NOT_RECOVERED, // it cannot be told or done what is needed: do not touch it before the next start
    };

    // Finishes or undoes an upgrade that was interrupted. When the app folder is missing, the backup with the highest
    // build gets its name. Calls `stopClient` before what is in the app folder is removed. Logs one line when there
    // was something to do, one ERROR with NOT_RECOVERED.
    Condition Recover(const std::function<void()> &stopClient);

    // Whether Recover() has found that an upgrade must be made whatever the versions say.
    bool IsUpgradeDue() const { return condition && *condition != INTACT; }

    // Begins an upgrade. Calls Recover() first, unless that was done since the last upgrade. Creates the folder in
    // which the app folder lies, if that is possible. Returns 0, or -1 with one ERROR line when the app folder must not
    // be touched.
    int Begin(const std::function<void()> &stopClient);

    // Whether Begin() has found an app folder.
    bool HasOldCopy() const { return hasOldCopy; }

    enum MoveResult { MOVED, NOT_MOVED, NOT_RECORDED };

    // Renames the app folder to backup name `n`. NOT_MOVED: the name is taken, or the rename failed. NOT_RECORDED, with
    // one ERROR line: the journal could not be written. With both the app folder is as it was.
    MoveResult MoveAside(int n);

    // To be called when MoveAside() has failed for good: the journal is as before the upgrade.
    void Cancel();

    // To be called before the first byte of the new copy is written. Returns 0, or -1 with one ERROR line when the
    // journal could not be written: the old copy is back in place.
    int BeginCopy();

    // Removes what has been copied so far, for another try. Returns false when it is still there.
    bool RemoveCopy() const { return Discard(path); }

    // Writes the new copy to disk. Returns 0, or -1 with one ERROR line.
    int Flush();

    // Removes what has been copied and gives the old copy its name back. Returns 0, or -1 with one ERROR line: the old
    // copy keeps its backup name, and the next Recover() tries again.
    int RollBack();

    // Removes the backup and those with lower numbers. To be called when the new copy is complete and flushed.
    void Commit();

private:
    Condition FindCondition(const std::function<void()> &stopClient);
    Condition RestoreBestBackup(UpgradeJournal::ReadResult found);
    bool IsBetterThanBackup() const;
    Condition NotRecovered(const char *reason) const;
    Condition EndRolledBack();
    bool WriteRecord(UpgradeJournal::State state);
    bool GiveNameBack(int n) const;
    bool Discard(const std::string &folder) const;
    std::string DiscardName(int n) const;
    void RemoveBackups(int last) const;

    const std::string path;
    const std::string parent;
    const UpgradeJournal journal;
    UserFolderLock lock;
    std::optional<Condition> condition;           // from Recover(); none when an upgrade has begun since
    std::optional<UpgradeJournal::Record> before; // what the journal says before the upgrade

    // The upgrade that is going on.
    bool hasOldCopy = false;
    bool hasJournal = false;
    bool isFirstRecord = true;
    UpgradeJournal::Record record;
    std::unique_ptr<ScopedFd> parentFd; // open while a copy is made
};

#endif
