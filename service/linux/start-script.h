#ifndef BRIMLOCK_SERVICE_LINUX_START_SCRIPT_H
#define BRIMLOCK_SERVICE_LINUX_START_SCRIPT_H

#include <functional>
#include <string>

constexpr int kStartScriptWarningMilliseconds = 60000;

// Runs "SCRIPT start" and waits, without a time limit, until it has ended. Its standard input is empty. It inherits the
// environment and the other two streams, no other open file if these can be closed, and gets CallerSignals(). Its exit
// status is ignored. Nothing is logged when it is missing or cannot be executed; one ERROR when no process can be
// created. When the script has run for `warningMilliseconds`, logs one WARNING and calls `onSlow`.
void RunStartScript(const std::string &script, const std::function<void()> &onSlow,
                    int warningMilliseconds = kStartScriptWarningMilliseconds);

#endif
