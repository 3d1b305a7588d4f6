#ifndef BRIMLOCK_SERVICE_LINUX_START_SCRIPT_H
#define BRIMLOCK_SERVICE_LINUX_START_SCRIPT_H

#include <csignal>
#include <functional>
#include <string>

// What the launcher ignores, so that neither the end of a session nor a failing write ends an upgrade half-way. The
// start script, and with it the client, gets their default action.
constexpr int kIgnoredSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGXFSZ};

constexpr int kStartScriptPatienceMilliseconds = 60000;

// Runs "SCRIPT start" and waits for its end without limit. Its standard input is empty; it inherits the environment
// and the other streams. How it ends is not looked at, and a script that is missing or cannot be executed goes
// unnoticed. Logs an ERROR when no process can be made, and one WARNING once the wait has lasted for `patience`.
// `onSlow` is called with that warning.
void RunStartScript(const std::string &script, const std::function<void()> &onSlow,
                    int patienceMilliseconds = kStartScriptPatienceMilliseconds);

#endif
