#include "service/upgrade-journal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

#include "fileop/file-op.h"
#include "fileop/scoped-fd.h"
#include "service/config/config.h"

namespace
{
constexpr mode_t kMode = 0600;

// Returns false for anything but a decimal number.
bool ToNumber(const std::string &text, uint64_t &number)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    errno = 0;
    number = strtoull(text.c_str(), nullptr, 10);
    return errno == 0;
}
} // namespace

UpgradeJournal::UpgradeJournal(const std::string &userFolder)
    : folder(userFolder), path(folder + "/upgrade.journal"), newPath(path + "_new")
{
}

UpgradeJournal::Found UpgradeJournal::Read(Record &record) const
{
    if (folder.empty()) {
        return NONE;
    }
    unlink(newPath.c_str());
    if (!IsFileExist(path, false)) {
        return NONE;
    }
    Config file;
    Record read;
    uint64_t isInstalled = 0;
    uint64_t lastBackup = 0;
    if (file.read(path) != 0 || !ToNumber(file["old_device"], read.old_device) ||
        !ToNumber(file["old_inode"], read.old_inode) || !ToNumber(file["is_installed"], isInstalled) ||
        !ToNumber(file["last_backup"], lastBackup) || file["end"] != "yes") {
        return MALFORMED;
    }
    read.is_installed = isInstalled != 0;
    read.last_backup = static_cast<int>(lastBackup);
    record = read;
    return READ;
}

int UpgradeJournal::Write(const Record &record) const
{
    if (folder.empty()) {
        return 0;
    }
    // The last line tells a whole file from one that a disk has cut short.
    const std::string text = "old_device=" + std::to_string(record.old_device) +
                             "\nold_inode=" + std::to_string(record.old_inode) +
                             "\nis_installed=" + std::to_string(static_cast<int>(record.is_installed)) +
                             "\nlast_backup=" + std::to_string(record.last_backup) + "\nend=yes\n";
    if (WriteNew(text) != 0 || rename(newPath.c_str(), path.c_str()) != 0) {
        const int failure = errno;
        unlink(newPath.c_str());
        errno = failure;
        return -1;
    }
    return FSFsync(folder) == 0 ? 0 : -1;
}

int UpgradeJournal::WriteNew(const std::string &text) const
{
    const ScopedFd file(
        open(newPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kMode));
    if (!file.valid()) {
        return -1;
    }
    errno = ENOSPC; // for a write that stops short without an error
    const ssize_t written = write(file.get(), text.data(), text.size());
    return written == static_cast<ssize_t>(text.size()) && fsync(file.get()) == 0 ? 0 : -1;
}

int UpgradeJournal::Remove() const
{
    if (folder.empty()) {
        return 0;
    }
    FSFsync(folder);
    return unlink(path.c_str()) == 0 || errno == ENOENT ? 0 : -1;
}
