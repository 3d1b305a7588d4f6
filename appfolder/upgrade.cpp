#include "appfolder/upgrade.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <unistd.h>

#include "appfolder/log-component.h"
#include "appfolder/tree-copy.h"
#include "fileop/file-op.h"
#include "log/log.h"

Upgrade::Upgrade(const AppFolder &appFolder, const UpgradeJournal &upgradeJournal, const Recovery &recovered)
    : app(appFolder), journal(upgradeJournal), recovery(recovered), hasJournal(!app.Path().empty())
{
    record.isTrusted = recovery.condition == Recovery::INTACT;
}

// Writes the next step to the journal. Returns false, with one ERROR line, if the step must not be done. If the first
// record shows that the folder is not writable, the upgrade continues without a journal.
bool Upgrade::WriteRecord(UpgradeJournal::State state)
{
    record.state = state;
    if (!hasJournal) {
        return true;
    }
    const UpgradeJournal::WriteResult result = journal.Write(record);
    if (result == UpgradeJournal::FOLDER_NOT_WRITABLE && isFirstRecord) {
        hasJournal = false;
        return true;
    }
    if (result != UpgradeJournal::WRITTEN) {
        LOGGER_ERROR(kServiceComponent, "cannot write '%s', no upgrade: %s (%d)\n", journal.Path().c_str(),
                     strerror(errno), errno);
        return false;
    }
    isFirstRecord = false;
    return true;
}

// Makes the journal what it was before the upgrade. Returns false when that has failed.
bool Upgrade::RestoreJournal() const
{
    if (!hasJournal) {
        return true;
    }
    return recovery.record ? journal.Write(*recovery.record) == UpgradeJournal::WRITTEN : journal.Remove() == 0;
}

int Upgrade::MoveAside()
{
    std::error_code ignored; // a folder that is missing shows later
    std::filesystem::create_directories(app.UserFolder(), ignored);
    const Presence presence = PresenceOf(app.Path());
    if (presence == UNKNOWN) {
        LOGGER_ERROR(kServiceComponent, "no upgrade of '%s', its status cannot be read: %s (%d)\n", app.Path().c_str(),
                     strerror(errno), errno);
        return -1;
    }
    hasOldCopy = presence == PRESENT;
    if (!hasOldCopy) {
        return 0;
    }
    for (int n = 0; n < UpgradeJournal::kBackupNames; ++n) {
        const MoveResult result = isRenamed ? MoveTo(n) : MoveCopyTo(n);
        if (result != TRY_NEXT) {
            return result == MOVED ? 0 : -1;
        }
        LOGGER_ERROR(kServiceComponent, "failed to backup app from '%s' -> '%s'\n", app.Path().c_str(),
                     app.Backup(n).c_str());
    }
    RemoveCopy(oldCopy); // if one was made
    // If this fails, the record MOVING stays. The next start then finds that nothing was moved.
    RestoreJournal();
    LOGGER_ERROR(kServiceComponent, "failed to backup app from '%s' -> '%s' at max retries, exiting\n",
                 app.Path().c_str(), app.Backup(record.backup).c_str());
    // Log readers know this message without a line end.
    LOGGER_ERROR(kServiceComponent,
                 "Please check if '%s' is writable. It may be locked by another process (e.g., CLI's working "
                 "directory is set to the target).",
                 app.Path().c_str());
    return -1;
}

// Tries to rename the app folder to backup `n`.
Upgrade::MoveResult Upgrade::MoveTo(int n)
{
    record.backup = n;
    if (!WriteRecord(UpgradeJournal::MOVING)) {
        RestoreJournal();
        return GIVE_UP;
    }
    if (app.RenameToBackup(n) == 0) {
        return MOVED;
    }
    if (errno != EXDEV) {
        return TRY_NEXT;
    }
    isRenamed = false;
    oldCopy = app.CopyToDiscarded(app.Path());
    return MoveCopyTo(n);
}

// Tries to make the copy of the app folder backup `n`, and removes the app folder. Until the backup has its name on the
// disk, the app folder is not touched.
Upgrade::MoveResult Upgrade::MoveCopyTo(int n)
{
    record.backup = n;
    const std::string backup = app.Backup(n);
    if (oldCopy.empty() || PresenceOf(backup) != MISSING) {
        return TRY_NEXT;
    }
    if (!WriteRecord(UpgradeJournal::COPYING)) {
        RestoreJournal();
        RemoveCopy(oldCopy);
        return GIVE_UP;
    }
    if (rename(oldCopy.c_str(), backup.c_str()) != 0) {
        return TRY_NEXT;
    }
    oldCopy.clear();
    if (!journal.FlushFolder()) {
        if (RestoreJournal()) {
            app.RemoveCopiedBackup(n);
        }
        return TRY_NEXT;
    }
    FSRemove(app.Path(), false);
    if (PresenceOf(app.Path()) == MISSING) {
        return MOVED;
    }
    return RollBack() == 0 ? TRY_NEXT : GIVE_UP;
}

int Upgrade::BeginCopy()
{
    // syncfs() reports a write-back error only on a descriptor that was opened before the error.
    userFolder = ScopedFd(open(app.UserFolder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const int error = errno;
    if (WriteRecord(UpgradeJournal::COPYING)) {
        if (userFolder.valid() || !hasJournal) {
            return 0;
        }
        LOGGER_ERROR(kServiceComponent, "cannot open '%s': %s (%d)\n", app.UserFolder().c_str(), strerror(error),
                     error);
    }
    RollBack();
    return -1;
}

int Upgrade::Flush()
{
    // Not valid: the user's folder is missing or unusable, so nothing was copied.
    if (userFolder.valid() && syncfs(userFolder.get()) != 0) {
        LOGGER_ERROR(kServiceComponent, "failed to flush '%s': %s (%d)\n", app.Path().c_str(), strerror(errno), errno);
        return -1;
    }
    if (!hasJournal ||
        journal.Write({UpgradeJournal::INSTALLED, std::max(record.backup, 0), true}) == UpgradeJournal::WRITTEN) {
        return 0;
    }
    // Some file systems count the blocks that two copies share only when they are flushed. Then the quota is exceeded
    // now, and neither the client nor the log could write. After other errors the new copy is kept if no journal is
    // left that would undo the upgrade.
    if (errno != EDQUOT && journal.Remove() == 0) {
        hasJournal = false;
        return 0;
    }
    LOGGER_ERROR(kServiceComponent, "cannot write '%s', no upgrade: %s (%d)\n", journal.Path().c_str(), strerror(errno),
                 errno);
    return -1;
}

void Upgrade::Commit()
{
    userFolder.reset();
    // Without an old copy, name 0 goes too: an earlier start may have left it.
    app.RemoveBackups(std::max(record.backup, 0));
    if (hasJournal) {
        journal.Remove();
    }
}

int Upgrade::RollBack()
{
    userFolder.reset();
    if (!hasOldCopy) {
        return 0;
    }
    if (!app.Restore(record.backup)) {
        LOGGER_ERROR(kServiceComponent, "Failed to rollback, the old installation is in '%s'\n",
                     app.Backup(record.backup).c_str());
        return -1;
    }
    // Only now, because the record of this upgrade would use a backup of which a part is removed.
    if (RestoreJournal()) {
        app.RemoveCopiedBackup(record.backup);
    }
    app.RemoveDiscarded();
    return 0;
}
