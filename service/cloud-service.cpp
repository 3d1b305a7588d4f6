#include "service/cloud-service.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>

#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "extractor/extractor.h"
#include "fct-qt/path-keys.h"
#include "fct-qt/ui-path-manager.h"
#include "fileop/file-op.h"
#include "fileop/scoped-fd.h"
#include "log/log.h"
#include "service/tree-fingerprint.h"

namespace
{
const std::string kComponent = "service_debug";
constexpr char kVersionFile[] = "/INFO";
constexpr int kBackupAttempts = 10;
constexpr std::chrono::seconds kTurnPatience(60);

// More than any version file holds by far. A larger one is no version file, and reading it would take its
// size in memory; reading a device or a pipe might never end.
constexpr qint64 kVersionFileBytes = 1 << 20;

std::string Environment(const char *name, const char *whenUnset)
{
    return qEnvironmentVariableIsSet(name) ? qgetenv(name).toStdString() : whenUnset;
}

// Reads what the file has to say into `version`, which the log calls `name`, and leaves the rest of it alone.
void LoadVersion(const char *name, const std::string &path, Service::VersionInfo &version)
{
    const std::pair<const char *, std::string Service::VersionInfo::*> fields[] = {
        {"major_version", &Service::VersionInfo::major_version},
        {"minor_version", &Service::VersionInfo::minor_version},
        {"build_version", &Service::VersionInfo::build_version},
        {"icon_overlay_version", &Service::VersionInfo::icon_overlay_version},
    };

    const QFileInfo file(QString::fromStdString(path));
    if (file.isFile() && file.size() <= kVersionFileBytes) {
        QSettings settings(QString::fromStdString(path), QSettings::IniFormat);
        settings.beginGroup(QStringLiteral("Version"));
        for (const auto &[key, field] : fields) {
            if (settings.contains(QLatin1String(key))) {
                version.*field = settings.value(QLatin1String(key)).toString().toStdString();
            }
        }
    }
    LOGGER_INFO(kComponent, "%s = (%s, %s, %s, %s)\n", name, version.major_version.c_str(),
                version.minor_version.c_str(), version.build_version.c_str(), version.icon_overlay_version.c_str());
}

// The name that the app folder gets while it is replaced.
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

class DirCloser
{
public:
    explicit DirCloser(DIR_HANDLE &opened) : handle(opened) {}
    ~DirCloser() { FSCloseDir(handle); }
    DirCloser(const DirCloser &) = delete;
    DirCloser &operator=(const DirCloser &) = delete;

private:
    DIR_HANDLE &handle;
};

uint64_t MtimeNanoseconds(const struct stat &status)
{
    return static_cast<uint64_t>(status.st_mtim.tv_sec) * 1000000000 + static_cast<uint64_t>(status.st_mtim.tv_nsec);
}

// What the journal is to know of the app folder before anything happens to it. Returns 0, also when there is none, or
// -1 with errno set when that cannot be told.
int LookAt(const std::string &appFolder, UpgradeJournal::Record &record)
{
    struct stat status = {};
    if (lstat(appFolder.c_str(), &status) != 0) {
        return errno == ENOENT ? 0 : -1;
    }
    record.old_device = status.st_dev;
    record.old_inode = status.st_ino;
    record.old_mtime_ns = MtimeNanoseconds(status);
    return 0;
}

bool IsRecorded(const struct stat &status, const UpgradeJournal::Record &record)
{
    return (status.st_dev == record.old_device && status.st_ino == record.old_inode) ||
           MtimeNanoseconds(status) == record.old_mtime_ns;
}

// Asks the file system itself where its folders do not tell what is in them.
bool IsFolder(const DIR_ENTRY &entry, const std::string &path)
{
    if (entry.type != FS_TYPE_NONE) {
        return entry.type == FS_TYPE_DIR;
    }
    _FILE_INFO_tag info;
    return GetFileInfo(path, info) == 0 && info.type == FS_TYPE_DIR;
}

} // namespace

bool IsUOSDesktop()
{
    const std::string desktop = Environment("XDG_CURRENT_DESKTOP", "ubuntu:GNOME");
    LOGGER_DEBUG(kComponent, "Current Desktop is %s\n", desktop.c_str());
    return desktop == "Deepin";
}

QString Service::GetUserInstallPath()
{
    if (!IsUOSDesktop()) {
        return QDir::homePath();
    }
    const std::string path = Environment("XDG_DATA_HOME", "");
    LOGGER_DEBUG(kComponent, "user install path is %s\n", path.c_str());
    return path.empty() ? QDir::homePath() : QString::fromStdString(path);
}

std::string Service::RegisteredPath(const char *key, const char *rest)
{
    const std::string path = UIPathManager::getInstance()->getPath(QLatin1String(key)).toStdString();
    return path.empty() ? path : path + rest;
}

void Service::LoadSourceVersion()
{
    const std::string path = RegisteredPath(path_key::kUserBrimlockResource, kVersionFile);
    if (!IsFileExist(path, false)) {
        LOGGER_INFO(kComponent, "source does not exist\n");
        return;
    }
    LoadVersion("source_version", path, source_version);
}

void Service::LoadTargetVersion()
{
    // No look whether the file exists: an install without one counts as build 0, and the four empty values in
    // the log say so.
    LoadVersion("target_version", RegisteredPath(path_key::kRootResource, kVersionFile), target_version);
}

int Service::FSCopyPath(const std::string &src, const std::string &dst)
{
    LOGGER_DEBUG(kComponent, "copy from '%s' to '%s'\n", src.c_str(), dst.c_str());
    _FILE_INFO_tag info;
    if (FSStat(src, info, false) < 0) {
        LOGGER_ERROR(kComponent, "FSCopyPath: failed to stat source '%s'\n", src.c_str());
        return -1;
    }
    if (!info.exists) {
        LOGGER_ERROR(kComponent, "FSCopyPath: source path '%s' does not exist\n", src.c_str());
        return -1;
    }
    if (info.type != FS_TYPE_DIR) {
        FSCopy(src, dst, false, false);
        return 0; // whatever came of it: an install from a single file must not be rolled back
    }
    if (FSMKDir(dst, true) < 0) {
        LOGGER_ERROR(kComponent, "FSCopyPath: failed to create dest folder '%s'\n", dst.c_str());
        return -1;
    }

    DIR_HANDLE handle;
    const DirCloser closer(handle);
    if (FSOpenDir(src, 0, handle) < 0) {
        // Both blanks are meant.
        LOGGER_WARNING(kComponent, "FSCopyPath: failed to create handle  for src '%s' failed\n", src.c_str());
        return 0; // a folder that this user may not look into is left empty, and the rest still installed
    }

    DIR_ENTRY entry;
    while (FSReadDir(handle, entry) == 1) {
        if (entry.name == "." || entry.name == "..") {
            continue;
        }
        const std::string from = src + "/" + entry.name;
        const std::string to = dst + "/" + entry.name;
        const int result = IsFolder(entry, from) ? FSCopyPath(from, to) : FSCopy(from, to, false, true);
        if (result < 0) {
            LOGGER_ERROR(kComponent, "FSCopyPath: failed to copy from '%s' to '%s'\n", from.c_str(), to.c_str());
            return -1;
        }
    }
    return 0;
}

int Service::CopyPackage()
{
    const std::string src = RegisteredPath(path_key::kRootResource, "/package/larkspire");
    const std::string dst = RegisteredPath(path_key::kUserBrimlockApp);
    const std::string versionFile = RegisteredPath(path_key::kRootResource, kVersionFile);
    LOGGER_INFO(kComponent, "copy package:'%s' -> '%s' \n", src.c_str(), dst.c_str());

    // A package that is replaced meanwhile gives a copy of neither.
    const auto shipped = [&] {
        const std::string parent = FSParentPath(src);
        return std::array{TreeFingerprint(src), TreeFingerprint(versionFile), EntryFingerprint(parent),
                          EntryFingerprint(FSParentPath(parent))};
    };
    const auto before = shipped();
    const int result = FSCopyPath(src, dst);
    if (result == 0 && shipped() != before) {
        LOGGER_ERROR(kComponent, "package '%s' has changed while it was copied\n", src.c_str());
        return -1;
    }
    return result;
}

int Service::ExtractPackage()
{
    const std::string src = RegisteredPath(path_key::kRootResource, "/package/larkspire.vpk");
    const std::string dst = RegisteredPath(path_key::kUserBrimlockApp);
    if (FSMKDir(dst, true) < 0) {
        LOGGER_ERROR(kComponent, "failed to create folder: '%s'\n", dst.c_str());
        return -1;
    }
    LOGGER_INFO(kComponent, "extract package: '%s' -> '%s'\n", src.c_str(), dst.c_str());
    Extractor extractor;
    extractor.SetSource(src);
    extractor.SetTarget(dst);
    return extractor.Extract();
}

int Service::PrepareUserEnv()
{
    // What is written beside the app folder comes before the copy, which would make the folder too.
    QDir().mkpath(QString::fromStdString(FSParentPath(app_path)));
    const UpgradeJournal journal(RegisteredPath(path_key::kUserBrimlock));
    UpgradeJournal::Record record;
    if (BeginJournal(journal, record) != 0) {
        return -1;
    }
    std::string backup;
    if (IsFileExist(app_path, false)) {
        record.last_backup = BackUp(backup);
        if (record.last_backup < 0) {
            journal.Remove();
            return -1;
        }
    }
    if (FillAppFolder() != 0) {
        RollBack(journal, backup);
        return -1;
    }
    SettleIn(journal, record, backup);
    return 0;
}

int Service::BeginJournal(const UpgradeJournal &journal, UpgradeJournal::Record &record) const
{
    if (LookAt(app_path, record) != 0) {
        LOGGER_ERROR(kComponent, "cannot look at '%s': %s (%d)\n", app_path.c_str(), strerror(errno), errno);
        return -1;
    }
    if (journal.Write(record) == 0) {
        return 0;
    }
    LOGGER_NOTE(kComponent, "cannot write '%s', upgrading without: %s (%d)\n", journal.Path().c_str(), strerror(errno),
                errno);
    return journal.Remove(); // one of an earlier upgrade must not speak for this one
}

void Service::RollBack(const UpgradeJournal &journal, const std::string &backup) const
{
    // The messages speak of extraction whichever way the copy is made.
    if (backup.empty()) {
        LOGGER_ERROR(kComponent, "Failed to extract package, and no old installation to rollback\n");
        return;
    }
    LOGGER_ERROR(kComponent, "Failed to extract package, rollback to old installation\n");
    if (PutInPlace(backup) != 0) {
        LOGGER_ERROR(kComponent, "Failed to rollback, the old installation is in '%s'\n", backup.c_str());
        return;
    }
    journal.Remove();
}

void Service::SettleIn(const UpgradeJournal &journal, UpgradeJournal::Record record, const std::string &backup) const
{
    record.is_installed = true;
    if (journal.Write(record) != 0 && journal.Remove() != 0) {
        // The next start takes the new copy for a partial one, and must find the old one to put back.
        LOGGER_ERROR(kComponent, "cannot update '%s', keeping '%s': %s (%d)\n", journal.Path().c_str(), backup.c_str(),
                     strerror(errno), errno);
        return;
    }
    LOGGER_INFO(kComponent, "user installation is ready, removing backup app\n");
    if (RemoveBackups(record.last_backup) == 0) {
        journal.Remove();
    }
}

int Service::FillAppFolder()
{
    // Open before the first byte is written: a failure to write back is told to those who were there.
    const ScopedFd disk(open(FSParentPath(app_path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const int result = disk.valid() ? CopyPackage() : 0;
    if (result == 0 && (!disk.valid() || syncfs(disk.get()) != 0)) {
        LOGGER_ERROR(kComponent, "failed to flush '%s': %s (%d)\n", app_path.c_str(), strerror(errno), errno);
        return -1;
    }
    return result;
}

int Service::PutInPlace(const std::string &old) const
{
    int result = -1;
    // Twice, because an error that passes must not cost anybody the client.
    for (int attempt = 0; attempt < 2 && result != 0 && IsFileExist(old, false); ++attempt) {
        FSRemove(app_path, false);
        result = FSRename(old, app_path, false);
    }
    return result;
}

int Service::RemoveBackups(int last) const
{
    int result = 0;
    // The lower numbers too: they are what earlier runs left behind.
    for (int n = 0; n <= last; ++n) {
        if (FSRemove(GetAppBackupDir(app_path, n), false) != 0) {
            result = -1;
        }
    }
    return result;
}

bool Service::OpenUserFolder()
{
    const std::string folder = RegisteredPath(path_key::kUserBrimlock);
    if (folder.empty()) {
        return true;
    }
    if (userFolder.Acquire(folder, kTurnPatience) == UserFolderLock::TAKEN_BY_ANOTHER) {
        LOGGER_WARNING(kComponent, "another launcher has been at work in '%s' for %d s, starting what is in place\n",
                       folder.c_str(), static_cast<int>(kTurnPatience.count()));
        return false;
    }
    return PutRight(UpgradeJournal(folder)) == 0;
}

void Service::CloseUserFolder()
{
    userFolder.Release();
}

int Service::PutRight(const UpgradeJournal &journal) const
{
    UpgradeJournal::Record record;
    switch (journal.Read(record)) {
    case UpgradeJournal::NONE:
        return 0;
    case UpgradeJournal::UNREADABLE:
        LOGGER_ERROR(kComponent, "cannot read '%s': %s (%d)\n", journal.Path().c_str(), strerror(errno), errno);
        return -1;
    case UpgradeJournal::MALFORMED:
        // It is whole before anything is moved, so nothing has been.
        LOGGER_NOTE(kComponent, "'%s' is malformed and stands for nothing\n", journal.Path().c_str());
        break;
    case UpgradeJournal::READ:
        if (record.is_installed) {
            RemoveBackups(record.last_backup); // what does not go now never will
        } else if (PutBack(record) != 0) {
            LOGGER_ERROR(kComponent, "cannot put right what '%s' tells of\n", journal.Path().c_str());
            return -1;
        }
        LOGGER_NOTE(kComponent, "an upgrade that was cut short has been put right\n");
        break;
    }
    return journal.Remove();
}

int Service::PutBack(const UpgradeJournal::Record &record) const
{
    for (int n = -1; n < kBackupAttempts && record.old_inode != 0; ++n) {
        const std::string candidate = n < 0 ? app_path : GetAppBackupDir(app_path, n);
        struct stat status = {};
        if (lstat(candidate.c_str(), &status) != 0) {
            if (errno != ENOENT) {
                return -1; // it may be the one
            }
        } else if (IsRecorded(status, record)) {
            return n < 0 ? 0 : PutInPlace(candidate);
        }
    }
    return FSRemove(app_path, false) == 0 && !IsFileExist(app_path, false) ? 0 : -1;
}

int Service::BackUp(std::string &backup) const
{
    for (int n = 0; n < kBackupAttempts; ++n) {
        backup = GetAppBackupDir(app_path, n);
        if (FSRename(app_path, backup, false) == 0) {
            return n;
        }
        LOGGER_ERROR(kComponent, "failed to backup app from '%s' -> '%s'\n", app_path.c_str(), backup.c_str());
    }
    LOGGER_ERROR(kComponent, "failed to backup app from '%s' -> '%s' at max retries, exiting\n", app_path.c_str(),
                 backup.c_str());
    // Without a line end.
    LOGGER_ERROR(kComponent,
                 "Please check if '%s' is writable. It may be locked by another process (e.g., CLI's working "
                 "directory is set to the target).",
                 app_path.c_str());
    return -1;
}

void Service::RemoveAgedFolders()
{
    const std::string path = RegisteredPath(path_key::kUserLarkspire, "/app");
    LOGGER_INFO(kComponent, "removing aged app folder %s\n", path.c_str());
    FSRemove(path, false);
}

void Service::MigrateService()
{
    const std::string old = RegisteredPath(path_key::kUserLarkspire);
    const std::string current = RegisteredPath(path_key::kUserBrimlock);

    if (!IsFileExist(current, true) && FSMKDir(current, true) != 0) {
        LOGGER_ERROR(kComponent, "Failed to create Brimlock folder\n");
        return;
    }
    const std::string oldData = RegisteredPath(path_key::kUserLarkspire, "/data");
    if (IsFileExist(oldData, true) && FSRename(oldData, current + "/data", true) < 0) {
        LOGGER_ERROR(kComponent, "Failed to move data to Brimlock folder\n");
    }
    // Also when the move failed, with the data that stayed behind: the predecessor is gone for good.
    if (IsFileExist(old, true) && FSRemove(old, false) < 0) {
        LOGGER_ERROR(kComponent, "Failed to remove old .Larkspire folder\n");
    }
}
