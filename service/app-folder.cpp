#include "service/app-folder.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <QDir>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fileop/file-op.h"
#include "log/log.h"
#include "service/version-file.h"

namespace
{
const std::string kComponent = "service_debug";
constexpr int kAttempts = 2; // an error may be transient
constexpr int kDiscardNames = 10;

constexpr char kRecovered[] = "an upgrade that was cut short has been put right\n"; // log readers search for it

enum Presence { PRESENT, MISSING, UNKNOWN };

// Unlike IsFileExist(), distinguishes a missing entry from one whose status cannot be read. With UNKNOWN, errno is set.
Presence PresenceOf(const std::string &path)
{
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        struct stat status = {};
        if (lstat(path.c_str(), &status) == 0) {
            return PRESENT;
        }
        if (errno == ENOENT || errno == ENOTDIR) {
            return MISSING;
        }
    }
    return UNKNOWN;
}

// Whether the folder contains the parts that every complete client has. MISSING if one of them is missing.
Presence PresenceOfClient(const std::string &folder)
{
    for (const char *part : {"/INFO", "/bin/brimlock-ui", "/package/start-stop"}) {
        const Presence presence = PresenceOf(folder + part);
        if (presence == UNKNOWN && (errno == EACCES || errno == ELOOP)) {
            return MISSING; // this user could not start it
        }
        if (presence != PRESENT) {
            return presence;
        }
    }
    return PRESENT;
}
} // namespace

std::string GetAppBackupDir(const std::string &base, int n)
{
    std::string name = base + "_tmp";
    if (n == 0) {
        return name;
    }
    char suffix[8] = "";
    if (snprintf(suffix, sizeof suffix, "%d", n) < 0) {
        LOGGER_ERROR(kComponent, "snprintf failed (continuing without postfix)"); // no line end
        return name;
    }
    return name + suffix;
}

AppFolder::AppFolder(const std::string &appPath) : path(appPath), parent(FSParentPath(appPath)), journal(parent) {}

UserFolderLock::Result AppFolder::Lock(std::chrono::milliseconds timeout)
{
    return path.empty() ? UserFolderLock::NOT_LOCKABLE : lock.Acquire(parent, timeout);
}

std::string AppFolder::DiscardName(int n) const
{
    return path + "_discarded" + (n == 0 ? "" : std::to_string(n));
}

// Removes the folder. If that fails, renames it to a name that no start ever uses as a client. Returns false when the
// folder still has its own name.
bool AppFolder::Discard(const std::string &folder) const
{
    FSRemove(folder, false);
    if (PresenceOf(folder) == MISSING) { // FSRemove() returns 0 for a folder that it cannot list
        return true;
    }
    for (int n = 0; n < kDiscardNames; ++n) {
        if (rename(folder.c_str(), DiscardName(n).c_str()) == 0) {
            return true;
        }
    }
    return false;
}

// Removes the backups with the numbers 0 to `last`.
void AppFolder::RemoveBackups(int last) const
{
    for (int n = 0; n <= last; ++n) {
        Discard(GetAppBackupDir(path, n));
    }
}

// Removes the app folder, and renames backup `n` to it. Returns false when the backup keeps its name.
bool AppFolder::RestoreBackup(int n) const
{
    if (PresenceOf(path) != MISSING) {
        Discard(path);
    }
    if (PresenceOf(path) == PRESENT) {
        return false; // a rename that copies (on overlay file systems) would mix the backup with what is left
    }
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (FSRename(GetAppBackupDir(path, n), path, false) == 0) {
            return true;
        }
    }
    return false;
}

// Writes the next step of the upgrade to the journal. Returns false, with one ERROR line, if the step must not be done.
// If the first record shows that the folder is not writable, the upgrade continues without a journal.
bool AppFolder::WriteRecord(UpgradeJournal::State state)
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
        LOGGER_ERROR(kComponent, "cannot write '%s', no upgrade: %s (%d)\n", journal.Path().c_str(), strerror(errno),
                     errno);
        return false;
    }
    isFirstRecord = false;
    return true;
}

// Ends an upgrade that was undone: the app folder holds the same copy as before it.
AppFolder::Condition AppFolder::EndRolledBack()
{
    if (record.is_trusted) {
        idleRecord.reset();
        journal.Remove();
        return INTACT;
    }
    idleRecord = UpgradeJournal::Record{UpgradeJournal::DUE, UpgradeJournal::kNoBackup, false};
    // If this fails, the record of the upgrade stays. It, too, makes the next start upgrade.
    journal.Write(*idleRecord);
    return UPGRADE_DUE;
}

AppFolder::Condition AppFolder::NotRecovered(const char *reason) const
{
    LOGGER_ERROR(kComponent, "no upgrade of '%s', %s: %s (%d)\n", path.c_str(), reason, strerror(errno), errno);
    return NOT_RECOVERED;
}

// Whether the app folder should be kept although a backup exists: the app folder has all parts of a client, and the
// backup, which may have been incomplete when it was moved aside, lacks one. A person may have put a copy there.
bool AppFolder::IsBetterThanBackup() const
{
    return !record.is_trusted && PresenceOfClient(path) == PRESENT &&
           PresenceOfClient(GetAppBackupDir(path, record.backup)) == MISSING;
}

// Renames the complete backup with the highest build to the missing app folder. A person may have removed a damaged
// copy, and needs a client until an upgrade has succeeded.
AppFolder::Condition AppFolder::RestoreBestBackup(UpgradeJournal::ReadResult found)
{
    int best = UpgradeJournal::kNoBackup;
    int bestBuild = 0;
    for (int n = 0; n < UpgradeJournal::kBackupNames; ++n) {
        const std::string backup = GetAppBackupDir(path, n);
        const Presence client = PresenceOfClient(backup);
        if (client == UNKNOWN) {
            return NotRecovered("a backup cannot be looked at");
        }
        if (client == PRESENT) {
            const int build = BuildNumber(ReadVersionFile(backup + "/INFO")["build_version"]);
            if (best == UpgradeJournal::kNoBackup || build > bestBuild) {
                best = n;
                bestBuild = build;
            }
        }
    }
    if (best == UpgradeJournal::kNoBackup && found == UpgradeJournal::NONE) {
        return INTACT; // there is no client yet
    }
    const Condition result = found == UpgradeJournal::UNREADABLE ? NOT_RECOVERED : UPGRADE_DUE;
    if (best == UpgradeJournal::kNoBackup) {
        return result;
    }
    if (result == UPGRADE_DUE) {
        // Before the rename, because the backup may be old: the next start must upgrade even if this one is
        // interrupted.
        record.is_trusted = false;
        EndRolledBack();
    }
    if (!RestoreBackup(best)) {
        return NotRecovered("a backup cannot be renamed to it");
    }
    LOGGER_NOTE(kComponent, "'%s' was missing, '%s' is used until the next upgrade\n", path.c_str(),
                GetAppBackupDir(path, best).c_str());
    return result;
}

// Does the work of Recover().
AppFolder::Condition AppFolder::FinishOrUndoUpgrade(const std::function<void()> &stopClient)
{
    for (int n = 0; n < kDiscardNames; ++n) {
        FSRemove(DiscardName(n), false);
    }
    idleRecord.reset();
    const Presence app = PresenceOf(path);
    if (app == UNKNOWN) {
        return NotRecovered("it cannot be looked at");
    }
    const UpgradeJournal::ReadResult found = journal.Read(record);
    if (found == UpgradeJournal::READ) {
        idleRecord = record;
    }
    const bool mayHaveMoved =
        idleRecord && (record.state == UpgradeJournal::MOVING || record.state == UpgradeJournal::COPYING);
    if (mayHaveMoved && record.backup != UpgradeJournal::kNoBackup) {
        const Presence backup = PresenceOf(GetAppBackupDir(path, record.backup));
        if (backup == UNKNOWN) {
            return NotRecovered("the backup cannot be looked at");
        }
        // In state MOVING the name of the backup may belong to another folder; then nothing was moved.
        const bool wasMoved = backup == PRESENT && (app == MISSING || record.state == UpgradeJournal::COPYING);
        if (wasMoved && !IsBetterThanBackup()) {
            if (app == PRESENT) {
                stopClient();
            }
            if (!RestoreBackup(record.backup)) {
                return NotRecovered("the backup cannot be renamed to it");
            }
            LOGGER_NOTE(kComponent, "%s", kRecovered);
            return EndRolledBack();
        }
    }
    if (app == MISSING) {
        return RestoreBestBackup(found);
    }
    if (found != UpgradeJournal::READ) {
        return found == UpgradeJournal::NONE ? INTACT : NOT_RECOVERED;
    }
    switch (record.state) {
    case UpgradeJournal::MOVING:
        LOGGER_NOTE(kComponent, "%s", kRecovered);
        return EndRolledBack();
    case UpgradeJournal::INSTALLED:
        RemoveBackups(record.backup);
        LOGGER_NOTE(kComponent, "the backups of an upgrade have been removed\n");
        idleRecord.reset();
        journal.Remove();
        return INTACT;
    default:
        LOGGER_NOTE(kComponent, "the copy in '%s' may be incomplete, an upgrade is due\n", path.c_str());
        return UPGRADE_DUE;
    }
}

AppFolder::Condition AppFolder::Recover(const std::function<void()> &stopClient)
{
    condition = path.empty() ? INTACT : FinishOrUndoUpgrade(stopClient);
    return *condition;
}

int AppFolder::Begin(const std::function<void()> &stopClient)
{
    const Condition found = condition ? *condition : Recover(stopClient);
    condition.reset(); // this upgrade may leave something to recover
    if (found == NOT_RECOVERED) {
        return -1;
    }
    QDir().mkpath(QString::fromStdString(parent));
    const Presence app = PresenceOf(path);
    hasOldCopy = app == PRESENT;
    hasJournal = !path.empty();
    isFirstRecord = true;
    record = {UpgradeJournal::MOVING, UpgradeJournal::kNoBackup, found == INTACT};
    if (app == UNKNOWN) {
        NotRecovered("it cannot be looked at");
        return -1;
    }
    return 0;
}

void AppFolder::Cancel()
{
    if (!hasJournal) {
        return;
    }
    if (idleRecord) {
        // If this fails, the record MOVING stays. The next start then finds that nothing was moved.
        journal.Write(*idleRecord);
    } else {
        journal.Remove();
    }
}

AppFolder::MoveResult AppFolder::MoveAside(int n)
{
    record.backup = n;
    if (!WriteRecord(UpgradeJournal::MOVING)) {
        Cancel();
        return NOT_RECORDED;
    }
    const std::string backup = GetAppBackupDir(path, n);
    const bool isRenamed = FSRename(path, backup, false) == 0;
    if (isRenamed) {
        return MOVED;
    }
    // NFS may report a failure although the server has done the rename.
    const bool isMoved = PresenceOf(path) == MISSING && PresenceOf(backup) == PRESENT;
    return isMoved ? MOVED : NOT_MOVED;
}

int AppFolder::RollBack()
{
    parentFd.reset();
    if (!hasOldCopy) {
        return 0;
    }
    if (!RestoreBackup(record.backup)) {
        LOGGER_ERROR(kComponent, "Failed to rollback, the old installation is in '%s'\n",
                     GetAppBackupDir(path, record.backup).c_str());
        return -1;
    }
    if (hasJournal) {
        EndRolledBack();
    }
    return 0;
}

int AppFolder::BeginCopy()
{
    // syncfs() reports a write-back error only on a descriptor that was opened before the error.
    parentFd = std::make_unique<ScopedFd>(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const int error = errno;
    if (WriteRecord(UpgradeJournal::COPYING)) {
        if (parentFd->valid() || !hasJournal) {
            return 0;
        }
        LOGGER_ERROR(kComponent, "cannot open '%s': %s (%d)\n", parent.c_str(), strerror(error), error);
    }
    RollBack();
    return -1;
}

int AppFolder::Flush()
{
    if (!parentFd->valid() || syncfs(parentFd->get()) == 0) {
        return 0; // not valid: the user's folder is missing or unusable, so nothing was copied
    }
    LOGGER_ERROR(kComponent, "failed to flush '%s': %s (%d)\n", path.c_str(), strerror(errno), errno);
    return -1;
}

void AppFolder::Commit()
{
    parentFd.reset();
    record = {UpgradeJournal::INSTALLED, std::max(record.backup, 0), true};
    if (hasJournal && journal.Write(record) != UpgradeJournal::WRITTEN && journal.Remove() != 0) {
        // The journal still says COPYING: the next start renames the backup back.
        LOGGER_ERROR(kComponent, "cannot update '%s', keeping the backups: %s (%d)\n", journal.Path().c_str(),
                     strerror(errno), errno);
        return;
    }
    RemoveBackups(record.backup);
    if (hasJournal) {
        journal.Remove();
    }
}
