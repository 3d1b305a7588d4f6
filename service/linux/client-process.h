#ifndef BRIMLOCK_SERVICE_LINUX_CLIENT_PROCESS_H
#define BRIMLOCK_SERVICE_LINUX_CLIENT_PROCESS_H

#include <string>

#include <sys/types.h>

#include "fileop/scoped-fd.h"

// The process that a pid file names. The constructor opens a pidfd, where the kernel has them, so that no signal
// reaches another process that gets the same id later.
class ClientProcess
{
public:
    explicit ClientProcess(pid_t pid);

    // Whether this cannot be the client: it was started later than `pidFile` was last written, and does not run from
    // `appFolder`. False if that is unknown.
    bool IsSomebodyElse(const std::string &pidFile, const std::string &appFolder) const;

    // Whether its executable or an argument of its command line lies in `appFolder`. False if that is unknown.
    bool RunsFrom(const std::string &appFolder) const;

    // Like kill(2), also with signal 0: returns 0, or -1 and sets errno.
    int Signal(int signal) const;

private:
    const pid_t pid;
    const std::string processFolder; // in /proc
    const ScopedFd handle;           // a pidfd; invalid if the process has ended or the kernel has no pidfds
};

#endif
