#include "service/upgrade-journal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fileop/file-op.h"
#include "fileop/scoped-fd.h"
#include "service/config/config.h"

namespace
{
constexpr mode_t kMode = 0644;      // for the user too, should root have made it
constexpr size_t kMostBytes = 4096; // more than a journal ever has
constexpr uint64_t kLastBackupMost = 9;

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
    const ScopedFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.valid()) {
        return errno == ENOENT ? NONE : errno == ELOOP || errno == ENXIO ? MALFORMED : UNREADABLE;
    }
    struct stat status = {};
    if (fstat(file.get(), &status) != 0) {
        return UNREADABLE;
    }
    if (!S_ISREG(status.st_mode)) {
        return MALFORMED;
    }
    char text[kMostBytes];
    const ssize_t size = read(file.get(), text, sizeof text);
    if (size < 0) {
        return UNREADABLE;
    }
    return Parse(std::string(text, static_cast<size_t>(size)), record) ? READ : MALFORMED;
}

bool UpgradeJournal::Parse(const std::string &text, Record &record)
{
    Config file;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::string key;
        std::string value;
        const int result = file.parse((line += '\n').data(), key, value);
        if (result == 2) {
            return false;
        }
        if (result == 0) {
            file[key] = value;
        }
    }
    Record read;
    uint64_t isInstalled = 0;
    uint64_t lastBackup = 0;
    if (!ToNumber(file["old_device"], read.old_device) || !ToNumber(file["old_inode"], read.old_inode) ||
        !ToNumber(file["old_mtime_ns"], read.old_mtime_ns) || !ToNumber(file["is_installed"], isInstalled) ||
        !ToNumber(file["last_backup"], lastBackup) || lastBackup > kLastBackupMost || file["end"] != "yes") {
        return false;
    }
    read.is_installed = isInstalled != 0;
    read.last_backup = static_cast<int>(lastBackup);
    record = read;
    return true;
}

int UpgradeJournal::Write(const Record &record) const
{
    if (folder.empty()) {
        return 0;
    }
    // The last line tells a whole file from one that a disk has cut short.
    const std::string text = "old_device=" + std::to_string(record.old_device) +
                             "\nold_inode=" + std::to_string(record.old_inode) +
                             "\nold_mtime_ns=" + std::to_string(record.old_mtime_ns) +
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
    return FSRemove(path, false);
}
