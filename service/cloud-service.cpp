#include "service/cloud-service.h"

#include <chrono>
#include <filesystem>
#include <utility>

#include <QDir>

#include "appfolder/log-component.h"
#include "appfolder/upgrade.h"
#include "appfolder/version-file.h"
#include "extractor/extractor.h"
#include "fct-qt/path-keys.h"
#include "fct-qt/ui-path-manager.h"
#include "fileop/file-op.h"
#include "log/log.h"
#include "service/source-snapshot.h"

namespace
{
constexpr char kVersionFile[] = "/INFO";
constexpr char kPackage[] = "/package/larkspire";
constexpr off_t kSmallestPart = 1; // bytes: an empty file is no part of a client
constexpr std::chrono::seconds kLockTimeout(60);
constexpr int kFirstInstallAttempts = 3;

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
    LOGGER_INFO(kServiceComponent, "%s = (%s, %s, %s, %s)\n", name, version.major_version.c_str(),
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

// Whether both paths name the same existing folder.
bool IsSameFolder(const std::string &path, const std::string &other)
{
    std::error_code error;
    return std::filesystem::equivalent(path, other, error);
}

// Copies an entry that is not a folder. Its mode is read only once.
int CopyFile(const std::string &src, const std::string &dst, SourceSnapshot *snapshot)
{
    const SourceSnapshot::Status status = snapshot != nullptr ? snapshot->Add(src) : SourceSnapshot::Status();
    return status.size < 0 ? FSCopy(src, dst, false, true)
                           : FSCopyWithMode(src, dst, status.mode, static_cast<uint64_t>(status.size));
}
} // namespace

bool IsUOSDesktop()
{
    const std::string desktop = Environment("XDG_CURRENT_DESKTOP", "ubuntu:GNOME");
    LOGGER_DEBUG(kServiceComponent, "Current Desktop is %s\n", desktop.c_str());
    return desktop == "Deepin";
}

QString Service::GetUserInstallPath()
{
    if (!IsUOSDesktop()) {
        return QDir::homePath();
    }
    const std::string path = Environment("XDG_DATA_HOME", "");
    LOGGER_DEBUG(kServiceComponent, "user install path is %s\n", path.c_str());
    return path.empty() ? QDir::homePath() : QString::fromStdString(path);
}

std::string Service::RegisteredPath(const char *key, const char *rest)
{
    const std::string path = UIPathManager::getInstance()->getPath(QLatin1String(key)).toStdString();
    return path.empty() ? path : path + rest;
}

bool Service::OpenUserFolder()
{
    if (opened && opened->appPath == app_path) {
        return opened->mayUpgrade;
    }
    const AppFolder app(app_path);
    opened = OpenedFolder{app_path, false, {}};
    if (!app_path.empty() && lock.Acquire(app.UserFolder(), kLockTimeout) == UserFolderLock::HELD_BY_ANOTHER) {
        LOGGER_WARNING(kServiceComponent,
                       "another launcher has been at work in '%s' for %d s, starting what is in place\n",
                       app.UserFolder().c_str(), static_cast<int>(kLockTimeout.count()));
        return false;
    }
    opened->recovery = Recover(app, UpgradeJournal(app.UserFolder()), [this] { StopService(); });
    opened->mayUpgrade = opened->recovery->condition != Recovery::NOT_RECOVERED;
    return opened->mayUpgrade;
}

void Service::CloseUserFolder()
{
    lock.Release();
    opened.reset();
}

bool Service::IsUpgradeDue()
{
    return opened && opened->appPath == app_path && opened->recovery && opened->recovery->condition != Recovery::INTACT;
}

void Service::LoadSourceVersion()
{
    const std::string path = RegisteredPath(path_key::kUserBrimlockResource, kVersionFile);
    if (!IsFileExist(path, false)) {
        LOGGER_INFO(kServiceComponent, "source does not exist\n");
        return;
    }
    LoadVersion("source_version", path, source_version);
}

void Service::LoadTargetVersion()
{
    // A missing file gets no message of its own: it counts as build 0, and the log shows four empty values.
    LoadVersion("target_version", RegisteredPath(path_key::kRootResource, kVersionFile), target_version);
}

int Service::CopyTree(const std::string &src, const std::string &dst, SourceSnapshot *snapshot, const char *last)
{
    LOGGER_DEBUG(kServiceComponent, "copy from '%s' to '%s'\n", src.c_str(), dst.c_str());
    if (snapshot != nullptr) {
        snapshot->Add(src);
    }
    _FILE_INFO_tag info;
    if (FSStat(src, info, false) < 0) {
        LOGGER_ERROR(kServiceComponent, "FSCopyPath: failed to stat source '%s'\n", src.c_str());
        return -1;
    }
    if (!info.exists) {
        LOGGER_ERROR(kServiceComponent, "FSCopyPath: source path '%s' does not exist\n", src.c_str());
        return -1;
    }
    if (info.type != FS_TYPE_DIR) {
        FSCopy(src, dst, false, false);
        return 0; // even if the copy failed: an installation from a single file is never rolled back
    }
    if (FSMKDir(dst, true) < 0) {
        LOGGER_ERROR(kServiceComponent, "FSCopyPath: failed to create dest folder '%s'\n", dst.c_str());
        return -1;
    }

    DIR_HANDLE handle;
    const DirCloser closer(handle);
    if (FSOpenDir(src, 0, handle) < 0) {
        // Log readers search for this text with its two blanks.
        LOGGER_WARNING(kServiceComponent, "FSCopyPath: failed to create handle  for src '%s' failed\n", src.c_str());
        return 0; // the folder stays empty and the rest is installed: packages with unlistable folders rely on that
    }

    std::optional<DIR_ENTRY> lastEntry;
    DIR_ENTRY entry;
    while (FSReadDir(handle, entry) == 1) {
        if (entry.name == "." || entry.name == "..") {
            continue;
        }
        if (last != nullptr && entry.name == last) {
            lastEntry = entry;
        } else if (CopyEntry(entry, src, dst, snapshot) < 0) {
            return -1;
        }
    }
    return lastEntry ? CopyEntry(*lastEntry, src, dst, snapshot) : 0;
}

// Copies one entry of the folder `src` to the folder `dst`. Returns 0, or -1 with ERROR lines.
int Service::CopyEntry(const DIR_ENTRY &entry, const std::string &src, const std::string &dst, SourceSnapshot *snapshot)
{
    const std::string from = src + "/" + entry.name;
    const std::string to = dst + "/" + entry.name;
    const int result = IsFolder(entry, from) ? CopyTree(from, to, snapshot) : CopyFile(from, to, snapshot);
    if (result < 0) {
        LOGGER_ERROR(kServiceComponent, "FSCopyPath: failed to copy from '%s' to '%s'\n", from.c_str(), to.c_str());
        return -1;
    }
    return 0;
}

int Service::FSCopyPath(const std::string &src, const std::string &dst)
{
    return CopyTree(src, dst, nullptr);
}

int Service::CopyPackage()
{
    const std::string src = RegisteredPath(path_key::kRootResource, kPackage);
    const std::string dst = RegisteredPath(path_key::kUserBrimlockApp);
    LOGGER_INFO(kServiceComponent, "copy package:'%s' -> '%s' \n", src.c_str(), dst.c_str());

    // The ctimes of the folders above change when the whole package is replaced during the copy. The copying itself
    // changes the user's folder, and the one above it if it creates the user's folder.
    SourceSnapshot snapshot;
    const std::string userFolder = FSParentPath(dst);
    for (const std::string &above : {FSParentPath(FSParentPath(src)), FSParentPath(src)}) {
        if (!IsSameFolder(above, userFolder) && !IsSameFolder(above, FSParentPath(userFolder))) {
            snapshot.Add(above);
        }
    }
    snapshot.Add(RegisteredPath(path_key::kRootResource, kVersionFile));
    // The version file is copied last, so that an incomplete copy lacks it.
    const int result = CopyTree(src, dst, &snapshot, kVersionFile + 1);
    // After a failure, a status that cannot be read may have the same cause, such as too few file descriptors.
    if (snapshot.HasChanged(result != 0)) {
        LOGGER_ERROR(kServiceComponent, "package '%s' has changed while it was copied\n", src.c_str());
        return kPackageChanged;
    }
    return result;
}

int Service::ExtractPackage()
{
    const std::string src = RegisteredPath(path_key::kRootResource, "/package/larkspire.vpk");
    const std::string dst = RegisteredPath(path_key::kUserBrimlockApp);
    if (FSMKDir(dst, true) < 0) {
        LOGGER_ERROR(kServiceComponent, "failed to create folder: '%s'\n", dst.c_str());
        return -1;
    }
    LOGGER_INFO(kServiceComponent, "extract package: '%s' -> '%s'\n", src.c_str(), dst.c_str());
    Extractor extractor;
    extractor.SetSource(src);
    extractor.SetTarget(dst);
    return extractor.Extract();
}

// The result of OpenUserFolder(), which counts for one upgrade of one path, or that of a new recovery.
Recovery Service::TakeRecovery(const AppFolder &app, const UpgradeJournal &journal)
{
    std::optional<Recovery> found;
    if (opened && opened->appPath == app.Path()) {
        found.swap(opened->recovery);
    }
    if (found && found->condition != Recovery::NOT_RECOVERED) {
        return *found;
    }
    return Recover(app, journal, [this] { StopService(); });
}

// Removes what a first install that was interrupted or has failed has copied. As a backup, it would take the room that
// the next copy needs. A copy with all parts is not removed: a person may have put it there.
void Service::RemovePartOfFirstInstall(const AppFolder &app, const Recovery &recovery)
{
    const bool isPart = recovery.record && recovery.record->state == UpgradeJournal::COPYING &&
                        recovery.record->backup == UpgradeJournal::kNoBackup && PresenceOf(app.Path()) == PRESENT &&
                        PresenceOfClient(app.Path(), kSmallestPart) == MISSING;
    if (isPart && IsFileExist(RegisteredPath(path_key::kRootResource, kPackage), false)) {
        StopService();
        app.Discard(app.Path());
    }
}

// Copies the package up to `attempts` times, until it does not change meanwhile.
int Service::FillAppFolder(const AppFolder &app, int attempts)
{
    int result = CopyPackage();
    for (int attempt = 1; attempt < attempts && result == kPackageChanged && app.Discard(app.Path()); ++attempt) {
        result = CopyPackage();
    }
    return result;
}

int Service::PrepareUserEnv()
{
    const AppFolder app(app_path);
    const UpgradeJournal journal(app.UserFolder());
    const Recovery recovery = TakeRecovery(app, journal);
    if (recovery.condition == Recovery::NOT_RECOVERED) {
        return -1;
    }
    RemovePartOfFirstInstall(app, recovery);
    Upgrade upgrade(app, journal, recovery);
    if (upgrade.MoveAside() != 0 || upgrade.BeginCopy() != 0) {
        return -1;
    }
    if (FillAppFolder(app, upgrade.HasOldCopy() ? 1 : kFirstInstallAttempts) != 0 || upgrade.Flush() != 0) {
        // The messages speak of extraction also when the package folder was copied: log readers search for them.
        if (upgrade.HasOldCopy()) {
            LOGGER_ERROR(kServiceComponent, "Failed to extract package, rollback to old installation\n");
        } else {
            LOGGER_ERROR(kServiceComponent, "Failed to extract package, and no old installation to rollback\n");
        }
        upgrade.RollBack();
        return -1;
    }
    LOGGER_INFO(kServiceComponent, "user installation is ready, removing backup app\n");
    upgrade.Commit();
    return 0;
}

void Service::RemoveAgedFolders()
{
    const std::string path = RegisteredPath(path_key::kUserLarkspire, "/app");
    LOGGER_INFO(kServiceComponent, "removing aged app folder %s\n", path.c_str());
    FSRemove(path, false);
}

void Service::MigrateService()
{
    const std::string old = RegisteredPath(path_key::kUserLarkspire);
    const std::string current = RegisteredPath(path_key::kUserBrimlock);

    if (!IsFileExist(current, true) && FSMKDir(current, true) != 0) {
        LOGGER_ERROR(kServiceComponent, "Failed to create Brimlock folder\n");
        return;
    }
    const std::string oldData = RegisteredPath(path_key::kUserLarkspire, "/data");
    if (IsFileExist(oldData, true) && FSRename(oldData, current + "/data", true) < 0) {
        LOGGER_ERROR(kServiceComponent, "Failed to move data to Brimlock folder\n");
    }
    // Even if the data could not be moved, which is then lost: the predecessor's folder must not stay.
    if (IsFileExist(old, true) && FSRemove(old, false) < 0) {
        LOGGER_ERROR(kServiceComponent, "Failed to remove old .Larkspire folder\n");
    }
}
