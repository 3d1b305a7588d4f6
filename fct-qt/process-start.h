#ifndef BRIMLOCK_FCT_QT_PROCESS_START_H
#define BRIMLOCK_FCT_QT_PROCESS_START_H

#include <cstdint>
#include <optional>
#include <string>

// When the process with this folder in /proc was started, in clock ticks since the boot; nothing when that cannot be
// told, because it is gone or hidden.
std::optional<uint64_t> ProcessStartTicks(const std::string &processFolder);

#endif
