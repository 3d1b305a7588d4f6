#ifndef BRIMLOCK_SERVICE_LINUX_START_SCRIPT_H
#define BRIMLOCK_SERVICE_LINUX_START_SCRIPT_H

#include <string>

constexpr int kStartScriptWarningMilliseconds = 60000;

// Runs "SCRIPT start" and waits, without a time limit, until it has ended. Its standard input is empty. It inherits the
// environment and the other two streams, and gets CallerSignals(). Its exit status is ignored. Nothing is logged when
// it is missing or cannot be executed; one ERROR when no process can be created, and one WARNING when the script has
// run for `warningMilliseconds`.
void RunStartScript(const std::string &script, int warningMilliseconds = kStartScriptWarningMilliseconds);

#endif
