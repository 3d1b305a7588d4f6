#ifndef BRIMLOCK_SERVICE_LINUX_CLIENT_PROCESS_H
#define BRIMLOCK_SERVICE_LINUX_CLIENT_PROCESS_H

#include <string>

#include <sys/types.h>

#include "fileop/scoped-fd.h"

// The process that a pid file names. Where the kernel can, it is held from construction on, so that no signal reaches
// another one that gets its number later.
class ClientProcess
{
public:
    explicit ClientProcess(pid_t pid);

    // Whether it cannot be the client: it was started after `pidFile` was last written, and does not run from
    // `appFolder`. False where the kernel does not tell.
    bool IsSomebodyElse(const std::string &pidFile, const std::string &appFolder) const;

    // Whether its executable or an argument of its command line lies in `appFolder`. False where the kernel does not
    // tell.
    bool RunsFrom(const std::string &appFolder) const;

    // As kill(2), also with signal 0.
    int Signal(int signal) const;

private:
    const pid_t pid;
    const std::string processFolder;
    const ScopedFd handle; // invalid where the kernel has none for the process
};

#endif
