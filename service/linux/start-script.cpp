#include "service/linux/start-script.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "appfolder/log-component.h"
#include "fileop/scoped-fd.h"
#include "log/log.h"
#include "service/linux/signal-settings.h"

namespace
{
constexpr int kMillisecondsPerSecond = 1000;

// While the object lives, this process ignores the signals that the child must ignore: posix_spawn() itself can only
// reset signals to their default action. The destructor restores the handlers of this process.
class IgnoringSignals
{
public:
    explicit IgnoringSignals(const sigset_t &ignored)
    {
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        for (int number = 1; number < NSIG; ++number) {
            struct sigaction own = {};
            if (sigismember(&ignored, number) == 1 && sigaction(number, &ignore, &own) == 0) {
                replaced.emplace_back(number, own);
            }
        }
    }

    ~IgnoringSignals()
    {
        for (const auto &[number, own] : replaced) {
            sigaction(number, &own, nullptr);
        }
    }

    IgnoringSignals(const IgnoringSignals &) = delete;
    IgnoringSignals &operator=(const IgnoringSignals &) = delete;

private:
    std::vector<std::pair<int, struct sigaction>> replaced;
};

// Starts the script with the argument "start". With closesFiles, it inherits no open file but the standard streams.
// Returns 0, or the error of posix_spawn(). Uses no shell, because the path of the home folder may contain blanks.
int Spawn(const std::string &script, bool closesFiles, pid_t &child)
{
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t files;
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_init(&files);

    const SignalSettings settings = CallerSignals();
    sigset_t defaults; // all signals that the child does not ignore
    sigfillset(&defaults);
    for (int number = 1; number < NSIG; ++number) {
        if (sigismember(&settings.ignored, number) == 1) {
            sigdelset(&defaults, number);
        }
    }
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setsigmask(&attributes, &settings.blocked);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    // Opened here, because posix_spawn() would fail if it could not open /dev/null itself.
    const ScopedFd nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (nothing.valid()) {
        posix_spawn_file_actions_adddup2(&files, nothing.get(), STDIN_FILENO);
    }
    if (closesFiles) {
        posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1);
    }

    const char *const arguments[] = {script.c_str(), "start", nullptr};
    const IgnoringSignals ignoring(settings.ignored);
    const int error =
        posix_spawn(&child, script.c_str(), &files, &attributes, const_cast<char *const *>(arguments), environ);
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    return error;
}
} // namespace

void RunStartScript(const std::string &script, const std::function<void()> &onSlow, int warningMilliseconds)
{
    pid_t child = 0;
    int error = Spawn(script, true, child);
    if (error != 0) {
        error = Spawn(script, false, child); // a kernel without close_range() and /proc cannot close them
    }
    if (error == EAGAIN || error == ENOMEM) {
        LOGGER_ERROR(kServiceComponent, "no process for '%s': %s (%d)\n", script.c_str(), strerror(error), error);
    }
    if (error != 0) {
        return;
    }

    // Without a pidfd, on an old kernel, there is no warning.
    const ScopedFd handle(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    if (handle.valid()) {
        pollfd event = {handle.get(), POLLIN, 0};
        if (poll(&event, 1, warningMilliseconds) == 0) {
            LOGGER_WARNING(kServiceComponent,
                           "'%s start' has not returned for %d s; until then, every later start of this user on this "
                           "computer ends at once\n",
                           script.c_str(), warningMilliseconds / kMillisecondsPerSecond);
            onSlow();
        }
    }
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}
