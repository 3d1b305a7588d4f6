#ifndef BRIMLOCK_FCT_QT_PROCESS_START_TIME_H
#define BRIMLOCK_FCT_QT_PROCESS_START_TIME_H

#include <cstdint>
#include <optional>
#include <string>

// The time at which a process or a thread was started, in clock ticks (sysconf(_SC_CLK_TCK)) since the boot.
// `processFolder` is its folder in /proc. Returns nothing when it has ended or its folder may not be read.
std::optional<uint64_t> ProcessStartTicks(const std::string &processFolder);

#endif
