#ifndef BRIMLOCK_APPFOLDER_APP_FOLDER_H
#define BRIMLOCK_APPFOLDER_APP_FOLDER_H

#include <string>

#include <sys/types.h>

// The name that the app folder `base` gets while it is replaced; `n` is 0 to UpgradeJournal::kBackupNames - 1.
std::string GetAppBackupDir(const std::string &base, int n);

enum Presence { PRESENT, MISSING, UNKNOWN };

// Unlike IsFileExist(), distinguishes a missing entry from one whose status cannot be read. With UNKNOWN, errno is set.
Presence PresenceOf(const std::string &path);

// Whether the folder contains the three parts of every complete client: INFO, bin/brimlock-ui and package/start-stop.
// MISSING if one of them is missing, has fewer than `smallestPart` bytes or may not be reached by this user. With
// UNKNOWN, errno is set.
Presence PresenceOfClient(const std::string &folder, off_t smallestPart = 0);

// The app folder of a user and the names beside it: ten for backups, and ten for what was discarded, which no start
// uses as a client. Holds paths only.
class AppFolder
{
public:
    explicit AppFolder(const std::string &appPath);

    const std::string &Path() const { return path; }
    const std::string &UserFolder() const { return userFolder; } // the parent of Path()
    std::string Backup(int n) const { return GetAppBackupDir(path, n); }

    // Renames the app folder to backup name `n`. Returns 0, or -1 with errno set and the app folder unchanged. EXDEV:
    // the file system does not rename this folder.
    int RenameToBackup(int n) const;

    // Copies a folder to a discarded name and flushes it. Returns the path, or "" with ERROR lines; nothing stays then.
    std::string CopyToDiscarded(const std::string &folder) const;

    // Makes backup `n` the app folder again; what was in the app folder is renamed to a discarded name or removed.
    // Where the file system does not rename the backup, it is copied, flushed, and keeps its name until the caller
    // removes it.
    // Entries that can be neither renamed nor removed stay; then only what is missing beside them is copied. Returns
    // false when that has failed: the backup is then unchanged, and so is the app folder if the user's folder may not
    // be written.
    bool Restore(int n) const;

    // Removes the backup if Restore() has copied it. If that is interrupted, no part of it keeps the name.
    void RemoveCopiedBackup(int n) const;

    // Removes the folder or, if that fails, renames it to a discarded name. Returns false when it still has its name.
    bool Discard(const std::string &folder) const;

    // Discards the backups with the numbers 0 to `last`.
    void RemoveBackups(int last) const;

    // Removes what has a discarded name, also where folders deny writing, if there is an app folder: until then, it
    // may be the only copy.
    void RemoveDiscarded() const;

private:
    std::string DiscardedName(int n) const;
    std::string FreeDiscardedName() const;
    std::string RenameToDiscarded(const std::string &folder) const;
    bool CompleteFrom(const std::string &backup) const;
    bool RestoreByCopy(const std::string &backup, const std::string &kept) const;
    bool CopyFlushed(const std::string &src, const std::string &dst, const std::string &unfinished) const;

    std::string path;
    std::string userFolder;
};

#endif
