#ifndef BRIMLOCK_SERVICE_LINUX_SIGNAL_SETTINGS_H
#define BRIMLOCK_SERVICE_LINUX_SIGNAL_SETTINGS_H

#include <csignal>

// Which signals a process ignores and blocks. execve() keeps these two settings; signal handlers become the default
// action.
struct SignalSettings {
    sigset_t ignored;
    sigset_t blocked;
};

// The settings of this process, and of the calling thread for those that are blocked.
SignalSettings CurrentSignalSettings();

// The settings that this process got from its caller. The start script, and with it the client, gets the same. A
// program that changes its settings remembers them first; without that, the current ones are returned.
void RememberCallerSignals(const SignalSettings &settings);
SignalSettings CallerSignals();

#endif
