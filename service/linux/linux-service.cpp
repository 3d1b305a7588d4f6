#include "service/linux/linux-service.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <QDir>
#include <unistd.h>

#include "appfolder/log-component.h"
#include "appfolder/version-file.h"
#include "fct-qt/path-keys.h"
#include "fileop/file-op.h"
#include "log/log.h"
#include "service/config/config.h"
#include "service/linux/client-process.h"
#include "service/linux/start-script.h"

namespace
{
constexpr int kTimeoutMilliseconds = 10000;
constexpr int kStopProbes = 5;
constexpr unsigned int kProbeIntervalSeconds = 1;
constexpr char kInstallRoot[] = "/opt/Veltrano/Brimlock";

// The process id in the pid file; 0 when it has none that may be signalled. 0 or a negative number would name a group
// of processes or all of them. If the number is the launcher's own, the client that wrote it has ended.
pid_t PidOf(Config &pidFile)
{
    const auto pid = static_cast<int32_t>(atol(pidFile["pid"].c_str()));
    return pid > 0 && pid != getpid() ? pid : 0;
}

// The running client's process id from its pid file, or 0 when there is nothing to stop.
pid_t RunningClient(const std::string &pidFile)
{
    if (!IsFileExist(pidFile, false)) {
        LOGGER_DEBUG(kServiceComponent, "pid file '%s' does not exist, no need to terminate\n", pidFile.c_str());
        return 0;
    }
    Config config;
    if (config.read(pidFile) < 0) {
        LOGGER_NOTE(kServiceComponent, "Failed to read pid file '%s', not exist ?\n", pidFile.c_str());
        return 0;
    }
    return PidOf(config);
}

// Whether the pid file names a process that runs from the folder.
bool IsClientRunningFrom(const std::string &appFolder, const std::string &pidFile)
{
    Config config;
    const pid_t pid = config.read(pidFile) == 0 ? PidOf(config) : 0;
    return pid != 0 && ClientProcess(pid).RunsFrom(appFolder);
}
} // namespace

LinuxService::LinuxService()
{
    timeout = kTimeoutMilliseconds;
    app_path = RegisteredPath(path_key::kUserBrimlockApp);
}

std::string LinuxService::PidFile()
{
    return RegisteredPath(path_key::kUserBrimlock, "/ui.pid");
}

void LinuxService::StopService()
{
    const std::string pidFile = PidFile();
    const pid_t pid = RunningClient(pidFile);
    if (pid == 0) {
        return;
    }
    const ClientProcess client(pid);
    if (client.IsSomebodyElse(pidFile, app_path)) {
        LOGGER_NOTE(kServiceComponent, "process %d of pid file '%s' is not the client, left alone\n",
                    static_cast<int>(pid), pidFile.c_str());
        return;
    }
    if (client.Signal(SIGTERM) != 0) {
        if (errno == ESRCH) {
            return;
        }
        LOGGER_ERROR(kServiceComponent, "kill: %s (%d)\n", strerror(errno), errno);
    }
    for (int probe = 0; probe < kStopProbes; ++probe) {
        if (client.Signal(0) != 0 && errno == ESRCH) {
            return;
        }
        sleep(kProbeIntervalSeconds);
    }
    client.Signal(SIGKILL);
}

int LinuxService::HandlePackageUpgrade()
{
    if (PerUserBinPathExist()) {
        LOGGER_DEBUG(kServiceComponent, "local appdata exist\n");
        StopService();
    } else if (IsClientRunningFrom(app_path, PidFile())) {
        // Without its executable there is usually nothing to stop, but an incomplete copy may run something else.
        StopService();
    }
    return PrepareUserEnv();
}

int LinuxService::PostUpgrade()
{
    return LaunchPerUserBin();
}

int LinuxService::PreUpgrade()
{
    LoadTargetVerInfo();
    LoadSourceVerInfo();
    LOGGER_DEBUG(kServiceComponent, "Source version: ('%s', '%s')\n", source_version.build_version.c_str(),
                 source_version.icon_overlay_version.c_str());
    LOGGER_DEBUG(kServiceComponent, "Target version: ('%s', '%s')\n", target_version.build_version.c_str(),
                 target_version.icon_overlay_version.c_str());
    return 0;
}

bool LinuxService::IsNeedUpgrade()
{
    const int source = BuildNumber(source_version.build_version);
    const int target = BuildNumber(target_version.build_version);
    LOGGER_DEBUG(kServiceComponent, "source version = %d, target version = %d\n", source, target);
    const bool isOlder = target > source;
    return !PerUserBinPathExist() || isOlder || IsUpgradeDue();
}

bool LinuxService::PerUserBinPathExist()
{
    return access(RegisteredPath(path_key::kUserBrimlockUi).c_str(), F_OK) == 0;
}

void LinuxService::LoadSourceVerInfo()
{
    LoadSourceVersion();
}

void LinuxService::LoadTargetVerInfo()
{
    LoadTargetVersion();
}

int LinuxService::LaunchPerUserBin()
{
    // The lock prevents other launchers from moving the copy while the script reads it. If the script does not end,
    // release the lock after a time, so that they need not wait for ever.
    RunStartScript(app_path + "/package/start-stop", [this] { CloseUserFolder(); });
    return 0;
}

PackageInfo::PackageInfo()
    : images_folder(std::string(kInstallRoot) + "/images"), user_folder(QDir::homePath().toStdString() + "/.Brimlock"),
      debug_file(std::string(kInstallRoot) + "/log/launcher.debug"),
      package_archive(std::string(kInstallRoot) + "/package/larkspire.vpk"),
      conf_folder(std::string(kInstallRoot) + "/conf")
{
}
