#include "service/linux/signal-settings.h"

#include <optional>

namespace
{
std::optional<SignalSettings> callerSignals;
} // namespace

SignalSettings CurrentSignalSettings()
{
    SignalSettings settings = {};
    sigemptyset(&settings.ignored);
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action = {};
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
            sigaddset(&settings.ignored, number);
        }
    }
    pthread_sigmask(SIG_SETMASK, nullptr, &settings.blocked);
    return settings;
}

void RememberCallerSignals(const SignalSettings &settings)
{
    callerSignals = settings;
}

SignalSettings CallerSignals()
{
    return callerSignals ? *callerSignals : CurrentSignalSettings();
}
