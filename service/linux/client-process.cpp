#include "service/linux/client-process.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "fct-qt/process-start-time.h"
#include "fileop/file-op.h"

namespace
{
// A client may seem to have been started this much later than its pid file was written: start times are coarse, and the
// clock may have been set.
constexpr double kStartToleranceSeconds = 2;

std::optional<std::string> ReadWhole(const std::string &path)
{
    std::ifstream file(path);
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return file.is_open() ? std::optional(text) : std::nullopt;
}

double Seconds(const timespec &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double Now(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return Seconds(now);
}

// The time at which the process was started, in seconds since 1970. Returns nothing when it cannot be read.
std::optional<double> StartTime(const std::string &processFolder)
{
    const std::optional<uint64_t> ticks = ProcessStartTicks(processFolder);
    if (!ticks) {
        return std::nullopt;
    }
    return Now(CLOCK_REALTIME) - Now(CLOCK_BOOTTIME) +
           static_cast<double>(*ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

bool LiesIn(const std::string &path, const std::string &folder, const std::string &realFolder)
{
    return FSIsParentFolder(folder, path) || FSIsParentFolder(realFolder, path);
}
} // namespace

ClientProcess::ClientProcess(pid_t clientPid)
    : pid(clientPid), processFolder("/proc/" + std::to_string(pid)),
      handle(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)))
{
}

bool ClientProcess::IsSomebodyElse(const std::string &pidFile, const std::string &appFolder) const
{
    const std::optional<double> started = StartTime(processFolder);
    struct stat written = {};
    if (!started || stat(pidFile.c_str(), &written) != 0 ||
        *started <= Seconds(written.st_mtim) + kStartToleranceSeconds || RunsFrom(appFolder)) {
        return false;
    }
    // The executable of another user's process or of a kernel thread cannot be read, and neither is this user's client.
    // A process of this user may hide its executable too (EACCES), and that one may be the client.
    char executable[PATH_MAX] = "";
    const bool isHidden = readlink((processFolder + "/exe").c_str(), executable, sizeof executable) < 0 &&
                          errno == EACCES && Signal(0) == 0;
    return !isHidden && ReadWhole(processFolder + "/cmdline").has_value();
}

bool ClientProcess::RunsFrom(const std::string &appFolder) const
{
    std::string realFolder = appFolder;
    FSGetRealPath(realFolder);
    char executable[PATH_MAX] = "";
    const ssize_t length = readlink((processFolder + "/exe").c_str(), executable, sizeof executable);
    if (length > 0 && LiesIn(std::string(executable, static_cast<size_t>(length)), appFolder, realFolder)) {
        return true;
    }
    std::istringstream arguments(ReadWhole(processFolder + "/cmdline").value_or(""));
    for (std::string argument; std::getline(arguments, argument, '\0');) {
        if (LiesIn(argument, appFolder, realFolder)) {
            return true;
        }
    }
    return false;
}

int ClientProcess::Signal(int signal) const
{
    if (!handle.valid()) {
        return kill(pid, signal);
    }
    return static_cast<int>(syscall(SYS_pidfd_send_signal, handle.get(), signal, nullptr, 0));
}
