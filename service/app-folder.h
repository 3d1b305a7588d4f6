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
// An upgrade calls Begin(), then MoveAside() if there is an old copy, BeginCopy(), copies, calls Flush(), and at last
// Commit() or RollBack(). Where the user's folder may not be written, the steps are the same without a journal.
class AppFolder
{
public:
    // The user's folder is the parent of `appPath`. With an empty path there is nothing to recover and no journal.
    explicit AppFolder(const std::string &appPath);

    // Lock and unlock the user's folder, see UserFolderLock.
    UserFolderLock::Result Lock(std::chrono::milliseconds timeout);
    void Unlock() { lock.Release(); }

    enum Condition {
        INTACT,        // no upgrade was interrupted, or it has been finished or undone
        UPGRADE_DUE,   // the app folder may hold an incomplete copy, or holds an old backup: it must be replaced
        NOT_RECOVERED, // the recovery failed: nobody may touch the app folder until a later start succeeds
    };

    // Finishes or undoes an upgrade that was interrupted. When the app folder is missing, renames the backup with the
    // highest build to it. Calls `stopClient` before it removes the contents of the app folder. Logs one NOTE when
    // there was something to do, and one ERROR with NOT_RECOVERED.
    Condition Recover(const std::function<void()> &stopClient);

    // Whether an upgrade is needed whatever the versions say: after UPGRADE_DUE, and after NOT_RECOVERED, though it
    // cannot be made then. False before Recover().
    bool IsUpgradeDue() const { return condition && *condition != INTACT; }

    // Begins an upgrade. Calls Recover() first, unless that was done since the last upgrade. Tries to create the user's
    // folder. Returns 0, or -1 with one ERROR line when the app folder must not be touched.
    int Begin(const std::function<void()> &stopClient);

    // Whether Begin() has found an app folder.
    bool HasOldCopy() const { return hasOldCopy; }

    enum MoveResult { MOVED, NOT_MOVED, NOT_RECORDED };

    // Renames the app folder to backup name `n`. NOT_MOVED: the rename failed, perhaps because the name is taken.
    // NOT_RECORDED, with one ERROR line: the journal could not be written. After both, the app folder is unchanged.
    MoveResult MoveAside(int n);

    // Ends an upgrade whose MoveAside() has failed for all names: restores the journal to what it was before.
    void Cancel();

    // To be called before the first byte of the new copy is written. Returns 0, or -1 with one ERROR line when that is
    // not possible; the old copy then has its name back.
    int BeginCopy();

    // Removes what has been copied so far, for another try. Returns false when it is still there.
    bool RemoveCopy() const { return Discard(path); }

    // Flushes the new copy to disk. Returns 0, or -1 with one ERROR line.
    int Flush();

    // Removes what has been copied and renames the backup to the app folder; without an old copy, leaves what has been
    // copied. Returns 0, or -1 with one ERROR line; the backup then keeps its name, and the next Recover() tries again.
    int RollBack();

    // To be called when the new copy is complete and flushed. Removes the backup, and those with lower numbers, which
    // earlier upgrades may have left.
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
    std::optional<Condition> condition;           // the result of Recover(); empty after Begin()
    std::optional<UpgradeJournal::Record> before; // what the journal says outside an upgrade

    // Of the current upgrade:
    bool hasOldCopy = false;
    bool hasJournal = false;
    bool isFirstRecord = true;
    UpgradeJournal::Record record;
    std::unique_ptr<ScopedFd> parentFd; // the user's folder, open while a copy is made
};

#endif
