#ifndef BRIMLOCK_SERVICE_LINUX_LINUX_SERVICE_H
#define BRIMLOCK_SERVICE_LINUX_LINUX_SERVICE_H

#include <string>

#include "service/cloud-service.h"

class LinuxService : public Service
{
public:
    LinuxService();

    // Ends the process that the client's ui.pid names: SIGTERM, up to five probes a second apart, SIGKILL.
    // Signals nothing but a positive process id, and no process that cannot be the client (see ClientProcess).
    void StopService() override;

    // Stops the client, if the user has one or it runs from the app folder, and replaces the copy.
    int HandlePackageUpgrade() override;

    // Starts the client. Always returns 0.
    int PostUpgrade() override;

    int PreUpgrade() override;
    bool IsNeedUpgrade() override;
    bool PerUserBinPathExist() override;

    void LoadSourceVerInfo();
    void LoadTargetVerInfo();

    // Runs the user's "package/start-stop start" and waits for it. Always returns 0.
    int LaunchPerUserBin();

private:
    static std::string PidFile();
};

// The paths of an installation.
struct PackageInfo {
    PackageInfo();

    std::string images_folder;
    std::string user_folder;
    std::string debug_file;
    std::string package_archive;
    std::string conf_folder;
};

#endif
