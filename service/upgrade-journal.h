#ifndef BRIMLOCK_SERVICE_UPGRADE_JOURNAL_H
#define BRIMLOCK_SERVICE_UPGRADE_JOURNAL_H

#include <cstdint>
#include <string>

// The file "upgrade.journal" in the user's folder. While it is there, the app folder cannot be trusted: an upgrade is
// at work or was cut short. What is written is on disk when a call returns, and is there whole or not at all.
class UpgradeJournal
{
public:
    // What the file says of an upgrade.
    struct Record {
        // The old app folder, which keeps these under whatever name it has: device and inode, and, where those do not
        // outlast a mount, the time of its last change in nanoseconds. Inode 0: there was none.
        uint64_t old_device = 0;
        uint64_t old_inode = 0;
        uint64_t old_mtime_ns = 0;
        // The new copy is whole and on disk; only the backups with the numbers 0 to last_backup are still to go.
        bool is_installed = false;
        int last_backup = 0;
    };

    enum Found { NONE, UNREADABLE, MALFORMED, READ };

    // `folder` is the user's folder. Empty: there is no journal, and every call has nothing to do.
    explicit UpgradeJournal(const std::string &userFolder);

    // `record` is set only with READ. UNREADABLE: nobody can tell what the file says, errno why. What a write that was
    // cut short has left beside the file is removed.
    Found Read(Record &record) const;

    // Puts the record in the place of what the file said. Returns 0. -1, with errno set: the file is as it
    // was, or it is the new one but may not outlive a power cut.
    int Write(const Record &record) const;

    // Flushes the folder, so that the journal outlives whatever it stands for, and removes the file. Returns 0, also
    // when there is none, or -1.
    int Remove() const;

    const std::string &Path() const { return path; }

private:
    static bool Parse(const std::string &text, Record &record);
    int WriteNew(const std::string &text) const;

    std::string folder;
    std::string path;
    std::string newPath; // the next content, until it takes the file's place
};

#endif
