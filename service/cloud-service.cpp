#include "service/cloud-service.h"

#include <chrono>
#include <utility>

#include <QDir>

#include "extractor/extractor.h"
#include "fct-qt/path-keys.h"
#include "fct-qt/ui-path-manager.h"
#include "fileop/file-op.h"
#include "log/log.h"
#include "service/source-snapshot.h"
#include "service/version-file.h"

namespace
{
const std::string kComponent = "service_debug";
constexpr char kVersionFile[] = "/INFO";
constexpr std::chrono::seconds kLockTimeout(60);
constexpr int kCopyAttempts = 3;

std::string Environment(const char *name, const char *whenUnset)
{
    return qEnvironmentVariableIsSet(name) ? qgetenv(name).toStdString() : whenUnset;
}

// Sets the fields of `version` that the file has. `name` is its name in the log.
void LoadVersion(const char *name, const std::string &path, Service::VersionInfo &version)
{
    const std::pair<const char *, std::string Service::VersionInfo::*> fields[] = {
        {"major_version", &Service::VersionInfo::major_version},
        {"minor_version", &Service::VersionInfo::minor_version},
        {"build_version", &Service::VersionInfo::build_version},
        {"icon_overlay_version", &Service::VersionInfo::icon_overlay_version},
    };
    const std::map<std::string, std::string> pairs = ReadVersionFile(path);
    for (const auto &[key, field] : fields) {
        if (const auto found = pairs.find(key); found != pairs.end()) {
            version.*field = found->second;
        }
    }
    LOGGER_INFO(kComponent, "%s = (%s, %s, %s, %s)\n", name, version.major_version.c_str(),
                version.minor_version.c_str(), version.build_version.c_str(), version.icon_overlay_version.c_str());
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

// Some file systems do not report the type of an entry when the folder is read.
bool IsFolder(const DIR_ENTRY &entry, const std::string &path)
{
    if (entry.type != FS_TYPE_NONE) {
        return entry.type == FS_TYPE_DIR;
    }
    _FILE_INFO_tag info;
    return GetFileInfo(path, info) == 0 && info.type == FS_TYPE_DIR;
}

// Copies an entry that is not a folder. Its mode is read only once.
int CopyEntry(const std::string &src, const std::string &dst, SourceSnapshot *snapshot)
{
    const SourceSnapshot::Status status = snapshot != nullptr ? snapshot->Add(src) : SourceSnapshot::Status();
    return status.size < 0 ? FSCopy(src, dst, false, true)
                           : FSCopyWithMode(src, dst, status.mode, static_cast<uint64_t>(status.size));
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

AppFolder &Service::UserAppFolder()
{
    if (!userAppFolder) {
        userAppFolder = std::make_unique<AppFolder>(app_path);
    }
    return *userAppFolder;
}

bool Service::OpenUserFolder()
{
    AppFolder &folder = UserAppFolder();
    if (folder.Lock(kLockTimeout) == UserFolderLock::HELD_BY_ANOTHER) {
        LOGGER_WARNING(kComponent, "another launcher has been at work in '%s' for %d s, starting what is in place\n",
                       FSParentPath(app_path).c_str(), static_cast<int>(kLockTimeout.count()));
        return false;
    }
    return folder.Recover([this] { StopService(); }) != AppFolder::NOT_RECOVERED;
}

void Service::CloseUserFolder()
{
    UserAppFolder().Unlock();
}

bool Service::IsUpgradeDue()
{
    return UserAppFolder().IsUpgradeDue();
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
    // A missing file gets no message of its own: it counts as build 0, and the log shows four empty values.
    LoadVersion("target_version", RegisteredPath(path_key::kRootResource, kVersionFile), target_version);
}

int Service::CopyTree(const std::string &src, const std::string &dst, SourceSnapshot *snapshot)
{
    LOGGER_DEBUG(kComponent, "copy from '%s' to '%s'\n", src.c_str(), dst.c_str());
    if (snapshot != nullptr) {
        snapshot->Add(src);
    }
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
        return 0; // even if the copy failed: an installation from a single file is never rolled back
    }
    if (FSMKDir(dst, true) < 0) {
        LOGGER_ERROR(kComponent, "FSCopyPath: failed to create dest folder '%s'\n", dst.c_str());
        return -1;
    }

    DIR_HANDLE handle;
    const DirCloser closer(handle);
    if (FSOpenDir(src, 0, handle) < 0) {
        // Log readers search for this text with its two blanks.
        LOGGER_WARNING(kComponent, "FSCopyPath: failed to create handle  for src '%s' failed\n", src.c_str());
        return 0; // the folder stays empty and the rest is installed: packages with unlistable folders rely on that
    }

    DIR_ENTRY entry;
    while (FSReadDir(handle, entry) == 1) {
        if (entry.name == "." || entry.name == "..") {
            continue;
        }
        const std::string from = src + "/" + entry.name;
        const std::string to = dst + "/" + entry.name;
        const bool isFolder = IsFolder(entry, from);
        const int result = isFolder ? CopyTree(from, to, snapshot) : CopyEntry(from, to, snapshot);
        if (result < 0) {
            LOGGER_ERROR(kComponent, "FSCopyPath: failed to copy from '%s' to '%s'\n", from.c_str(), to.c_str());
            return -1;
        }
    }
    return 0;
}

int Service::FSCopyPath(const std::string &src, const std::string &dst)
{
    return CopyTree(src, dst, nullptr);
}

int Service::CopyPackage()
{
    const std::string src = RegisteredPath(path_key::kRootResource, "/package/larkspire");
    const std::string dst = RegisteredPath(path_key::kUserBrimlockApp);
    LOGGER_INFO(kComponent, "copy package:'%s' -> '%s' \n", src.c_str(), dst.c_str());

    // The ctimes of these change when the whole package is replaced during the copy.
    SourceSnapshot snapshot;
    snapshot.Add(FSParentPath(FSParentPath(src)));
    snapshot.Add(FSParentPath(src));
    snapshot.Add(RegisteredPath(path_key::kRootResource, kVersionFile));
    const int result = CopyTree(src, dst, &snapshot);
    if (snapshot.HasChanged()) {
        LOGGER_ERROR(kComponent, "package '%s' has changed while it was copied\n", src.c_str());
        return kPackageChanged;
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

// Moves the app folder to the first backup name that can be used.
bool Service::MoveAside(AppFolder &folder)
{
    std::string backup;
    for (int n = 0; n < UpgradeJournal::kBackupNames; ++n) {
        const AppFolder::MoveResult result = folder.MoveAside(n);
        if (result != AppFolder::NOT_MOVED) {
            return result == AppFolder::MOVED;
        }
        backup = GetAppBackupDir(app_path, n);
        LOGGER_ERROR(kComponent, "failed to backup app from '%s' -> '%s'\n", app_path.c_str(), backup.c_str());
    }
    folder.Cancel();
    LOGGER_ERROR(kComponent, "failed to backup app from '%s' -> '%s' at max retries, exiting\n", app_path.c_str(),
                 backup.c_str());
    // Log readers know this message without a line end.
    LOGGER_ERROR(kComponent,
                 "Please check if '%s' is writable. It may be locked by another process (e.g., CLI's working "
                 "directory is set to the target).",
                 app_path.c_str());
    return false;
}

// Copies again when the package has changed: a person who starts the client during an update should get the new one.
int Service::FillAppFolder(const AppFolder &folder)
{
    int result = CopyPackage();
    for (int attempt = 1; attempt < kCopyAttempts && result == kPackageChanged && folder.RemoveCopy(); ++attempt) {
        result = CopyPackage();
    }
    return result;
}

int Service::PrepareUserEnv()
{
    AppFolder &folder = UserAppFolder();
    if (folder.Begin([this] { StopService(); }) != 0) {
        return -1;
    }
    if (folder.HasOldCopy() && !MoveAside(folder)) {
        return -1;
    }
    if (folder.BeginCopy() != 0) {
        return -1;
    }
    if (FillAppFolder(folder) != 0 || folder.Flush() != 0) {
        // The messages speak of extraction also when the package folder was copied: log readers search for them.
        if (folder.HasOldCopy()) {
            LOGGER_ERROR(kComponent, "Failed to extract package, rollback to old installation\n");
        } else {
            LOGGER_ERROR(kComponent, "Failed to extract package, and no old installation to rollback\n");
        }
        folder.RollBack();
        return -1;
    }
    LOGGER_INFO(kComponent, "user installation is ready, removing backup app\n");
    folder.Commit();
    return 0;
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
    // Even if the data could not be moved, which is then lost: the predecessor's folder must not stay.
    if (IsFileExist(old, true) && FSRemove(old, false) < 0) {
        LOGGER_ERROR(kComponent, "Failed to remove old .Larkspire folder\n");
    }
}
