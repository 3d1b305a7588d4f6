#ifndef BRIMLOCK_SERVICE_CLOUD_SERVICE_H
#define BRIMLOCK_SERVICE_CLOUD_SERVICE_H

#include <cstdint>
#include <string>

#include <QString>

#include "service/upgrade-journal.h"
#include "service/user-folder-lock.h"

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
    virtual int CopyPackage();

    // Fill source_version from the user's copy and target_version from the shipped one. A key that the file
    // lacks leaves its field as it was.
    virtual void LoadSourceVersion();
    virtual void LoadTargetVersion();

    // Moves the app folder aside to a free backup name and fills it anew through CopyPackage(). 0: the new
    // copy is in place and on disk, and the backups are removed. -1: nothing has changed (no backup could be made), or
    // the old copy is back under its name; without an old copy, what was written of the new one stays. The journal
    // outlives a failure that leaves the app folder in a state not to be trusted, for OpenUserFolder() to put right.
    virtual int PrepareUserEnv();

    // Moves the predecessor's data into the user's folder and removes the predecessor's folder, also when the
    // data could not be moved.
    virtual void MigrateService();

    // To be called before the versions are looked at. Waits up to 60 s while another launcher works on the user's
    // folder, keeps others out from then on, and puts right what an upgrade that was cut short has left: the old copy
    // goes back, a partial one without an old one is removed, backups that are no longer needed go. False: the app
    // folder is not to be touched in this run, because the other launcher is still at work or something could not be
    // put right. A folder that cannot be locked is used all the same.
    bool OpenUserFolder();

    // Lets other launchers in.
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

    int32_t timeout = 0; // milliseconds; nothing waits by it yet
    std::string app_path;
    VersionInfo target_version;
    VersionInfo source_version;

private:
    // What the journal and the disk say is put right. Returns 0, or -1 with the journal still there.
    int PutRight(const UpgradeJournal &journal) const;
    int PutBack(const UpgradeJournal::Record &record) const;

    // The steps of PrepareUserEnv(), 0 being success. RollBack() undoes a copy that failed, SettleIn() removes the
    // backups of one that is whole.
    int BeginJournal(const UpgradeJournal &journal, UpgradeJournal::Record &record) const;
    int FillAppFolder();
    void RollBack(const UpgradeJournal &journal, const std::string &backup) const;
    void SettleIn(const UpgradeJournal &journal, UpgradeJournal::Record record, const std::string &backup) const;

    // The old copy, under whatever name, takes the place of what is in the app folder.
    int PutInPlace(const std::string &old) const;

    // Those with the numbers 0 to `last`.
    int RemoveBackups(int last) const;

    // Renames the app folder to the first backup name that works, set in `backup`. Returns the name's number,
    // or -1 when none works and the app folder is as it was.
    int BackUp(std::string &backup) const;

    UserFolderLock userFolder;
};

#endif
