#include "appfolder/upgrade-journal.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "appfolder/folder-owner.h"
#include "appfolder/log-component.h"
#include "fileop/scoped-fd.h"
#include "log/log.h"

namespace
{
constexpr mode_t kMode = 0644;
constexpr size_t kMaxBytes = 4096; // much more than a record has
constexpr int kFormat = 1;
const std::string kFormatKey = "format=";
constexpr const char *kStateNames[] = {"moving", "copying", "installed", "due"}; // in the order of State

// A damaged file is read as this record.
constexpr UpgradeJournal::Record kUnknown = {UpgradeJournal::DUE, UpgradeJournal::kNoBackup, false};

// Some file systems do not support fsync() on a folder (EINVAL). There is nothing to flush then.
bool Flush(int fd)
{
    return fsync(fd) == 0 || errno == EINVAL;
}

// Whether creating a file has failed because the folder is missing or may not be written.
bool IsFolderNotWritable(int error)
{
    return error == ENOENT || error == ENOTDIR || error == EACCES || error == EPERM || error == EROFS;
}

enum FileKind { REGULAR, IRREGULAR, FOLDER, ABSENT, FAILED_TO_READ };

// Reads a regular file. `text` is empty for every other kind. FAILED_TO_READ: errno is set.
FileKind ReadText(const std::string &path, std::string &text)
{
    text.clear();
    const ScopedFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.valid()) {
        if (errno == ENOENT || errno == ENOTDIR) {
            return ABSENT;
        }
        return errno == ELOOP || errno == ENXIO ? IRREGULAR : FAILED_TO_READ; // a symbolic link or a socket
    }
    struct stat status = {};
    if (fstat(file.get(), &status) != 0) {
        return FAILED_TO_READ;
    }
    if (!S_ISREG(status.st_mode)) {
        return S_ISDIR(status.st_mode) ? FOLDER : IRREGULAR;
    }
    char bytes[kMaxBytes];
    const ssize_t size = read(file.get(), bytes, sizeof bytes);
    if (size < 0) {
        return FAILED_TO_READ;
    }
    text.assign(bytes, static_cast<size_t>(size));
    return REGULAR;
}

std::string ToText(const UpgradeJournal::Record &record)
{
    const std::string backup = record.backup == UpgradeJournal::kNoBackup ? "none" : std::to_string(record.backup);
    return kFormatKey + std::to_string(kFormat) + "\nstate=" + kStateNames[record.state] + "\nbackup=" + backup +
           "\ntrusted=" + (record.isTrusted ? "yes" : "no") + "\n";
}

// The format of a complete text; 0 for any other text.
int FormatOf(const std::string &text)
{
    const bool isComplete = text.rfind(kFormatKey, 0) == 0 && text.back() == '\n';
    return isComplete ? atoi(text.c_str() + kFormatKey.size()) : 0;
}

// There are few records, so the text is compared with each of them. A text that is none of them is damaged.
UpgradeJournal::Record FromText(const std::string &text)
{
    using Journal = UpgradeJournal;
    for (const auto state : {Journal::MOVING, Journal::COPYING, Journal::INSTALLED, Journal::DUE}) {
        for (int n = 0; n <= Journal::kBackupNames; ++n) {
            const int backup = n < Journal::kBackupNames ? n : Journal::kNoBackup;
            for (const bool isTrusted : {false, true}) {
                const Journal::Record record = {state, backup, isTrusted};
                if (ToText(record) == text) {
                    return record;
                }
            }
        }
    }
    return kUnknown;
}
} // namespace

UpgradeJournal::UpgradeJournal(const std::string &userFolder)
    : folder(userFolder), path(folder + "/upgrade.journal"), newPath(path + "_new")
{
}

UpgradeJournal::ReadResult UpgradeJournal::Read(Record &record) const
{
    unlink(newPath.c_str()); // left by a Write() that was interrupted
    std::string text;
    FileKind kind = ReadText(path, text);
    if (kind == FAILED_TO_READ) {
        kind = ReadText(path, text); // the error may be transient
    }
    switch (kind) {
    case ABSENT:
        return NONE;
    case FOLDER:
        LOGGER_ERROR(kServiceComponent, "'%s' is a folder, which is left alone: no upgrade\n", path.c_str());
        return UNREADABLE;
    case FAILED_TO_READ:
        LOGGER_ERROR(kServiceComponent, "cannot read '%s': %s (%d)\n", path.c_str(), strerror(errno), errno);
        return UNREADABLE;
    case REGULAR:
    case IRREGULAR:
        break;
    }
    if (FormatOf(text) > kFormat) {
        LOGGER_ERROR(kServiceComponent, "'%s' has a later format, which is left alone: no upgrade\n", path.c_str());
        return UNREADABLE;
    }
    record = FromText(text);
    return READ;
}

UpgradeJournal::WriteResult UpgradeJournal::WriteNewFile(const std::string &text) const
{
    unlink(newPath.c_str()); // an earlier start, or another user, may have left one that cannot be written
    const ScopedFd file(open(newPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
    if (!file.valid()) {
        return IsFolderNotWritable(errno) ? FOLDER_NOT_WRITABLE : FAILED;
    }
    fchmod(file.get(), kMode); // the umask may have removed bits
    GiveToFolderOwner(file.get(), folder);
    errno = ENOSPC; // write() sets no errno when it writes only a part of the text
    const ssize_t written = write(file.get(), text.data(), text.size());
    return written == static_cast<ssize_t>(text.size()) && Flush(file.get()) ? WRITTEN : FAILED;
}

UpgradeJournal::WriteResult UpgradeJournal::Write(const Record &record) const
{
    WriteResult result = WriteNewFile(ToText(record));
    if (result == WRITTEN && (rename(newPath.c_str(), path.c_str()) != 0 || !FlushFolder())) {
        result = FAILED;
    }
    if (result == FAILED) {
        const int error = errno;
        unlink(newPath.c_str());
        errno = error;
    }
    return result;
}

int UpgradeJournal::Remove() const
{
    if (!FlushFolder()) {
        return -1;
    }
    if (unlink(path.c_str()) != 0) {
        return errno == ENOENT ? 0 : -1;
    }
    return FlushFolder() ? 0 : -1;
}

bool UpgradeJournal::FlushFolder() const
{
    const ScopedFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.valid() && Flush(fd.get());
}
