#include "appfolder/app-folder.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "appfolder/log-component.h"
#include "appfolder/tree-copy.h"
#include "appfolder/upgrade-journal.h"
#include "fileop/file-op.h"
#include "fileop/scoped-fd.h"
#include "log/log.h"

namespace
{
constexpr int kAttempts = 2; // an error may be transient
constexpr int kDiscardedNames = 10;

// Like PresenceOf(), but an entry with fewer than `smallest` bytes counts as missing.
Presence PresenceOfSize(const std::string &path, off_t smallest)
{
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        struct stat status = {};
        if (lstat(path.c_str(), &status) == 0) {
            return status.st_size >= smallest ? PRESENT : MISSING;
        }
        if (errno == ENOENT || errno == ENOTDIR) {
            return MISSING;
        }
    }
    return UNKNOWN;
}

// rename(2), but also returns 0 when the entry has been renamed although the call failed: NFS may lose the answer of
// the server. Returns -1 with errno set otherwise.
int Rename(const std::string &from, const std::string &to)
{
    if (rename(from.c_str(), to.c_str()) == 0) {
        return 0;
    }
    const int error = errno;
    const bool isRenamed = PresenceOf(from) == MISSING && PresenceOf(to) == PRESENT;
    errno = error;
    return isRenamed ? 0 : -1;
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
        LOGGER_ERROR(kServiceComponent, "snprintf failed (continuing without postfix)"); // no line end
        return name;
    }
    return name + suffix;
}

Presence PresenceOf(const std::string &path)
{
    return PresenceOfSize(path, 0);
}

Presence PresenceOfClient(const std::string &folder, off_t smallestPart)
{
    for (const char *part : {"/INFO", "/bin/brimlock-ui", "/package/start-stop"}) {
        const Presence presence = PresenceOfSize(folder + part, smallestPart);
        if (presence == UNKNOWN && (errno == EACCES || errno == ELOOP)) {
            return MISSING; // this user could not start it
        }
        if (presence != PRESENT) {
            return presence;
        }
    }
    return PRESENT;
}

AppFolder::AppFolder(const std::string &appPath) : path(appPath), userFolder(FSParentPath(appPath)) {}

int AppFolder::RenameToBackup(int n) const
{
    return Rename(path, Backup(n));
}

std::string AppFolder::DiscardedName(int n) const
{
    return path + "_discarded" + (n == 0 ? "" : std::to_string(n));
}

// Returns "", with one ERROR line, when all names are taken.
std::string AppFolder::FreeDiscardedName() const
{
    for (int n = 0; n < kDiscardedNames; ++n) {
        if (PresenceOf(DiscardedName(n)) == MISSING) {
            return DiscardedName(n);
        }
    }
    LOGGER_ERROR(kServiceComponent, "all names from '%s' to '%s' are taken\n", DiscardedName(0).c_str(),
                 DiscardedName(kDiscardedNames - 1).c_str());
    return "";
}

// Returns the new name, or "" when the folder keeps its own.
std::string AppFolder::RenameToDiscarded(const std::string &folder) const
{
    for (int n = 0; n < kDiscardedNames; ++n) {
        if (rename(folder.c_str(), DiscardedName(n).c_str()) == 0) {
            return DiscardedName(n);
        }
    }
    return "";
}

// CopyMissing(), and flushes the file system.
bool AppFolder::CopyFlushed(const std::string &src, const std::string &dst, const std::string &unfinished) const
{
    // syncfs() reports a write-back error only on a descriptor that was opened before the error.
    const ScopedFd folder(open(userFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.valid() && !CopyMissing(src, dst, unfinished)) {
        return false;
    }
    if (folder.valid() && syncfs(folder.get()) == 0) {
        return true;
    }
    LOGGER_ERROR(kServiceComponent, "cannot flush '%s': %s (%d)\n", dst.c_str(), strerror(errno), errno);
    return false;
}

std::string AppFolder::CopyToDiscarded(const std::string &folder) const
{
    std::string copy = FreeDiscardedName();
    if (copy.empty() || CopyFlushed(folder, copy, "")) {
        return copy;
    }
    const int error = errno;
    RemoveCopy(copy);
    errno = error;
    return "";
}

// Copies what the app folder lacks of the backup.
bool AppFolder::CompleteFrom(const std::string &backup) const
{
    const std::string unfinished = FreeDiscardedName();
    bool isCopied = false;
    for (int attempt = 0; attempt < kAttempts && !unfinished.empty() && !isCopied; ++attempt) {
        isCopied = CopyFlushed(backup, path, unfinished);
    }
    return isCopied;
}

// Makes a copy of the backup the missing app folder. If there is no room, removes what has a discarded name, except for
// `kept`, and tries again: it may be an interrupted copy. Returns false with errno set.
bool AppFolder::RestoreByCopy(const std::string &backup, const std::string &kept) const
{
    std::string copy = CopyToDiscarded(backup);
    if (copy.empty()) {
        for (int n = 0; n < kDiscardedNames; ++n) {
            if (DiscardedName(n) != kept) {
                RemoveCopy(DiscardedName(n));
            }
        }
        copy = CopyToDiscarded(backup);
    }
    return !copy.empty() && Rename(copy, path) == 0;
}

bool AppFolder::Restore(int n) const
{
    const std::string backup = Backup(n);
    // Look once more: where there are no locks, another launcher may have restored it meanwhile.
    if (PresenceOf(backup) != PRESENT) {
        return false;
    }
    std::string discarded;
    if (PresenceOf(path) != MISSING) {
        discarded = RenameToDiscarded(path);
        if (discarded.empty() && (errno == EACCES || errno == EROFS)) {
            return false; // the backup cannot be renamed either
        }
        if (discarded.empty()) {
            FSRemove(path, false);
        }
    }
    if (PresenceOf(path) == PRESENT) {
        return CompleteFrom(backup);
    }
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (Rename(backup, path) == 0) {
            return true;
        }
    }
    if (errno == EXDEV && RestoreByCopy(backup, discarded)) {
        return true;
    }
    const int error = errno;
    if (!discarded.empty()) {
        rename(discarded.c_str(), path.c_str());
    }
    errno = error;
    return false;
}

void AppFolder::RemoveCopiedBackup(int n) const
{
    if (PresenceOf(Backup(n)) == MISSING) {
        return;
    }
    const std::string discarded = RenameToDiscarded(Backup(n));
    RemoveCopy(discarded.empty() ? Backup(n) : discarded);
}

bool AppFolder::Discard(const std::string &folder) const
{
    FSRemove(folder, false);
    if (PresenceOf(folder) == MISSING) { // FSRemove() returns 0 for a folder that it cannot list
        return true;
    }
    return !RenameToDiscarded(folder).empty();
}

void AppFolder::RemoveBackups(int last) const
{
    for (int n = 0; n <= last; ++n) {
        Discard(Backup(n));
    }
}

void AppFolder::RemoveDiscarded() const
{
    for (int n = 0; n < kDiscardedNames; ++n) {
        // In this order: without locks, another launcher may just be moving the app folder to this name.
        if (PresenceOf(DiscardedName(n)) == PRESENT && PresenceOf(path) == PRESENT) {
            RemoveCopy(DiscardedName(n));
        }
    }
}
