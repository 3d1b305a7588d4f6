#ifndef BRIMLOCK_APPFOLDER_UPGRADE_JOURNAL_H
#define BRIMLOCK_APPFOLDER_UPGRADE_JOURNAL_H

#include <string>

// The file "upgrade.journal" in the user's folder. It says which step of an upgrade has begun, so that the next start
// can finish or undo it. A record is replaced as a whole: after a crash the file holds the old record or the new one.
class UpgradeJournal
{
public:
    enum State {
        MOVING,    // the app folder is about to be renamed to the backup
        COPYING,   // the app folder holds nothing or a part of the new copy; the backup, if any, is the old copy
        INSTALLED, // the new copy is complete and on disk; the backups up to this number are to be removed
        DUE        // the app folder may hold an incomplete copy: upgrade even if its version is current
    };

    static constexpr int kBackupNames = 10; // numbered from 0
    static constexpr int kNoBackup = -1;

    struct Record {
        State state = DUE;
        int backup = kNoBackup; // the number of a backup name
        bool isTrusted = true;  // whether the copy that is moved aside was complete
    };

    enum ReadResult { NONE, READ, UNREADABLE };

    // `userFolder` is the folder that the file lies in.
    explicit UpgradeJournal(const std::string &userFolder);

    // READ: `record` is what the file says. A file that is empty, cut off or not a regular file reads as DUE: it may
    // lie beside a working copy. UNREADABLE, with one ERROR line: a read error, a record of a later format, or a folder
    // of that name. `record` is unchanged unless READ is returned. Removes what an interrupted Write() has left beside
    // the file.
    ReadResult Read(Record &record) const;

    enum WriteResult { WRITTEN, FAILED, FOLDER_NOT_WRITABLE };

    // Replaces the record, and returns when it and all earlier changes in the folder are on disk. FAILED, with errno
    // set: the file holds the old or the new record. FOLDER_NOT_WRITABLE: the folder is missing or may not be written,
    // and nothing has changed.
    WriteResult Write(const Record &record) const;

    // Removes the file when all earlier changes in the folder are on disk, and returns when it is gone from the disk
    // too. Returns 0, also when there is no such file, or -1 with errno set.
    int Remove() const;

    // Returns when all earlier changes in the folder are on disk. Returns false when they cannot be flushed.
    bool FlushFolder() const;

    const std::string &Path() const { return path; }

private:
    WriteResult WriteNewFile(const std::string &text) const;

    std::string folder;
    std::string path;
    std::string newPath; // holds the next record until it replaces the file
};

#endif
