#ifndef BRIMLOCK_SERVICE_CLOUD_SERVICE_H
#define BRIMLOCK_SERVICE_CLOUD_SERVICE_H

#include <cstdint>
#include <optional>
#include <string>

#include <QString>

#include "appfolder/app-folder.h"
#include "appfolder/recovery.h"
#include "appfolder/user-folder-lock.h"

class SourceSnapshot;
struct DIR_ENTRY;

// Whether XDG_CURRENT_DESKTOP is exactly "Deepin".
bool IsUOSDesktop();

// Keeps the user's copy of the client up to date with the shipped one. The operations call each other through the
// virtual functions, so that a subclass can replace each of them. Paths come from UIPathManager, which must be filled
// before. Failures are result codes and log lines.
class Service
{
public:
    // The values of a version file. A value that the file does not have is empty.
    struct VersionInfo {
        std::string major_version;
        std::string minor_version;
        std::string build_version; // a decimal integer; only this one is compared
        std::string icon_overlay_version;
    };

    virtual ~Service() = default;

    // Ends the running client, if there is one.
    virtual void StopService() = 0;

    virtual void SetTimeout(int milliseconds) { timeout = milliseconds; }

    // Replaces the user's copy. Returns what PrepareUserEnv() returns.
    virtual int HandlePackageUpgrade() = 0;

    // Starts the client from the app folder, also after a failed upgrade.
    virtual int PostUpgrade() = 0;

    // Loads and logs both versions. Returns 0.
    virtual int PreUpgrade() = 0;

    // Whether the user's copy must be replaced, because it is older than the shipped one or incomplete.
    virtual bool IsNeedUpgrade() = 0;

    virtual bool PerUserBinPathExist() = 0;

    // Fill the app folder from the package archive or from the unpacked package folder. Return 0, or a negative number;
    // what was written so far stays.
    virtual int ExtractPackage();

    // Copies the package's INFO last. Also returns kPackageChanged, with one ERROR line: the package changed while it
    // was copied, so the copy mixes two versions.
    virtual int CopyPackage();
    static constexpr int kPackageChanged = -200; // no other failure returns this number

    // Set source_version from the user's copy and target_version from the shipped one. Fields that the file does not
    // have keep their value.
    virtual void LoadSourceVersion();
    virtual void LoadTargetVersion();

    // Replaces the app folder `app_path`: moves it to a free backup name, fills a new one through CopyPackage() and
    // flushes it. Returns 0 when the new copy is complete and on disk; the backups are then removed. Returns -1, with
    // ERROR lines, when the upgrade was refused or has failed; the old copy is then the app folder again or, if it
    // could not be restored, keeps its backup name until the next recovery. Without an old copy, what was written of
    // the new one stays.
    //
    // CopyPackage() fills the registered app folder: a subclass with another `app_path` must override it too.
    //
    // Recovers from an earlier upgrade first, unless OpenUserFolder() has done it for this path since the last upgrade.
    // Without an old copy, copies up to three times when the package changes meanwhile. With one, does not copy again:
    // the next start upgrades, and a second copy could mix two versions unnoticed if the package is replaced file by
    // file.
    virtual int PrepareUserEnv();

    // Creates the user's folder if it is missing; when that fails, does nothing else. Moves the predecessor's data into
    // it. Then removes the predecessor's folder, also when the data could not be moved.
    virtual void MigrateService();

    // To be called before the versions are loaded. Locks the user's folder, waiting up to 60 s for another launcher,
    // and finishes or undoes an upgrade that was interrupted. Stops the client before an incomplete copy is removed.
    // Returns false when this start must not replace the app folder: the other launcher still holds the lock, or the
    // recovery failed. Logs why. A folder that supports no locks is used without one. The folder is the parent of
    // `app_path`. Until CloseUserFolder(), a second call for the same path does nothing and returns the same.
    bool OpenUserFolder();

    // Releases the lock. May be called more than once.
    void CloseUserFolder();

    // The parent of the user's folder: the home folder or, on a Deepin desktop, XDG_DATA_HOME if it is not empty.
    static QString GetUserInstallPath();

    // Copies a folder tree. For a link, the file that it points to is copied, with mode 0777 less the umask; a link to
    // a folder or a dangling link fails. Returns 0, or -1 at the first entry that fails; what was copied so far stays.
    // Two failures return 0: a `src` that is a single file and cannot be copied, and a folder that cannot be listed,
    // which stays empty.
    int FSCopyPath(const std::string &src, const std::string &dst);

    // Removes the predecessor's app folder.
    void RemoveAgedFolders();

protected:
    // The path of the key followed by `rest`; empty when UIPathManager does not know the key.
    static std::string RegisteredPath(const char *key, const char *rest = "");

    // Whether an upgrade is needed even if the versions are equal, because the app folder may hold an incomplete copy
    // or the recovery failed.
    bool IsUpgradeDue();

    int32_t timeout = 0; // milliseconds; not used by any wait so far
    std::string app_path;
    VersionInfo target_version;
    VersionInfo source_version;

private:
    // The result of OpenUserFolder().
    struct OpenedFolder {
        std::string appPath;
        bool mayUpgrade;
        std::optional<Recovery> recovery; // until an upgrade uses it
    };

    Recovery TakeRecovery(const AppFolder &app, const UpgradeJournal &journal);
    int FillAppFolder(const AppFolder &app, int attempts);
    void RemovePartOfFirstInstall(const AppFolder &app, const Recovery &recovery);

    // FSCopyPath() that adds everything to `snapshot`, if there is one, before it is read. The entry `last` of `src`,
    // if there is one, is copied after all others.
    int CopyTree(const std::string &src, const std::string &dst, SourceSnapshot *snapshot, const char *last = nullptr);
    int CopyEntry(const DIR_ENTRY &entry, const std::string &src, const std::string &dst, SourceSnapshot *snapshot);

    UserFolderLock lock;
    std::optional<OpenedFolder> opened;
};

#endif
