#include "service/linux/start-script.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "log/log.h"

namespace
{
const std::string kComponent = "service_debug";
constexpr int kMillisecondsPerSecond = 1000;

// Like posix_spawn(). Program and argument are apart: the home folder's path may hold blanks.
int Spawn(const std::string &script, pid_t &child)
{
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t files;
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_init(&files);

    sigset_t defaults;
    sigemptyset(&defaults);
    for (const int number : kIgnoredSignals) {
        sigaddset(&defaults, number);
    }
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    // Opened here: a system without it is no reason to start no client.
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (nothing >= 0) {
        posix_spawn_file_actions_adddup2(&files, nothing, STDIN_FILENO);
    }

    const char *const arguments[] = {script.c_str(), "start", nullptr};
    const int error =
        posix_spawn(&child, script.c_str(), &files, &attributes, const_cast<char *const *>(arguments), environ);
    if (nothing >= 0) {
        close(nothing);
    }
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    return error;
}
} // namespace

void RunStartScript(const std::string &script, const std::function<void()> &onSlow, int patienceMilliseconds)
{
    pid_t child = 0;
    const int error = Spawn(script, child);
    if (error == EAGAIN || error == ENOMEM) {
        LOGGER_ERROR(kComponent, "no process for '%s': %s (%d)\n", script.c_str(), strerror(error), error);
    }
    if (error != 0) {
        return;
    }

    // A kernel that has no such descriptors costs the warning only.
    const int ended = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    if (ended >= 0) {
        pollfd event = {ended, POLLIN, 0};
        if (poll(&event, 1, patienceMilliseconds) == 0) {
            LOGGER_WARNING(kComponent, "'%s start' has not returned for %d s; until it does, no launcher starts\n",
                           script.c_str(), patienceMilliseconds / kMillisecondsPerSecond);
            onSlow();
        }
        close(ended);
    }
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}
