#ifndef BRIMLOCK_SERVICE_CLOUD_SERVICE_H
#define BRIMLOCK_SERVICE_CLOUD_SERVICE_H

#include <cstdint>
#include <memory>
#include <string>

#include <QString>

#include "service/app-folder.h"

class SourceSnapshot;

// Whether XDG_CURRENT_DESKTOP is exactly "Deepin".
bool IsUOSDesktop();

// Keeps the user's private copy of the client up to date with the shipped one. Steps call each other through
// the virtual operations, so that a subclass may replace any of them. Paths come from UIPathManager, which
// must be filled first. Failures are result codes and log lines.
class Service
{
public:
    // What a version file says; empty where it says nothing.
    struct VersionInfo {
        std::string major_version;
        std::string minor_version;
        std::string build_version; // a decimal integer; the only one that decides
        std::string icon_overlay_version;
    };

    virtual ~Service() = default;

    // Ends the running client, if there is one.
    virtual void StopService() = 0;

    virtual void SetTimeout(int milliseconds) { timeout = milliseconds; }

    // Replaces the user's copy. 0, or -1 with the old copy back in place.
    virtual int HandlePackageUpgrade() = 0;

    // What is to be done when the copy is in place, or could not be replaced.
    virtual int PostUpgrade() = 0;

    // Loads and logs both versions. 0 always; nobody looks at it.
    virtual int PreUpgrade() = 0;

    // Whether the user's copy must be replaced: it is older than the shipped one, or broken.
    virtual bool IsNeedUpgrade() = 0;

    virtual bool PerUserBinPathExist() = 0;

    // Two ways to fill the app folder: from the package archive, and from the unpacked package folder. 0, or
    // negative with what was written so far left in place.
    virtual int ExtractPackage();

    // kPackageChanged, with one ERROR line: the package was replaced while it was copied, so the copy mixes two of
    // them.
    virtual int CopyPackage();
    static constexpr int kPackageChanged = -2;

    // Fill source_version from the user's copy and target_version from the shipped one. A key that the file
    // lacks leaves its field as it was.
    virtual void LoadSourceVersion();
    virtual void LoadTargetVersion();

    // Moves the app folder aside to a free backup name and fills it anew through CopyPackage(), up to three times when
    // the package changes meanwhile. 0: the new copy is in place and on disk, and the backups are removed. -1: nothing
    // has changed, or the old copy is back in place; without an old copy, what was written of the new one stays. What
    // an interrupted or failed upgrade leaves in the journal is for the next OpenUserFolder().
    virtual int PrepareUserEnv();

    // Moves the predecessor's data into the user's folder and removes the predecessor's folder, also when the
    // data could not be moved.
    virtual void MigrateService();

    // To be called before the versions are loaded. Locks the user's folder, waiting up to 60 s for another launcher,
    // and finishes or undoes an upgrade that was interrupted. Stops the client before an incomplete copy is removed.
    // Returns false when the app folder must not be replaced in this run: the other launcher still holds the lock, or
    // the recovery failed. Logs why. A folder that supports no locks is used without.
    bool OpenUserFolder();

    // Releases the lock. May be called more than once.
    void CloseUserFolder();

    // The folder under which the user's files lie: the home folder, on a Deepin desktop XDG_DATA_HOME if set.
    static QString GetUserInstallPath();

    // Copies a folder with all that is in it. A link is copied as the file that it points to, with the mode
    // 0777 less the umask; one to a folder or to nothing fails. 0, or -1 at the first entry that fails, with
    // what was copied so far left in place. Two failures count as success: a `src` that is a single file
    // which cannot be copied, and a folder that cannot be listed, which is left empty.
    int FSCopyPath(const std::string &src, const std::string &dst);

    // Removes the predecessor's app folder.
    void RemoveAgedFolders();

protected:
    // The path that UIPathManager has under the key, with `rest` behind it; empty, whatever the rest, when it has none.
    static std::string RegisteredPath(const char *key, const char *rest = "");

    // Whether an upgrade is needed whatever the versions say: the app folder may hold an incomplete copy, or that could
    // not be found out.
    bool IsUpgradeDue();

    int32_t timeout = 0; // milliseconds; nothing waits by it yet
    std::string app_path;
    VersionInfo target_version;
    VersionInfo source_version;

private:
    // Made at the first call, when a subclass has set app_path.
    AppFolder &UserAppFolder();

    bool MoveAside(AppFolder &folder);
    int FillAppFolder(const AppFolder &folder);

    // FSCopyPath() that adds everything to `snapshot`, if there is one, before it is read.
    int CopyTree(const std::string &src, const std::string &dst, SourceSnapshot *snapshot);

    std::unique_ptr<AppFolder> userAppFolder;
};

#endif
