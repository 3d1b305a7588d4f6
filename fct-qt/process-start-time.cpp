#include "fct-qt/process-start-time.h"

#include <fstream>
#include <iterator>
#include <sstream>

namespace
{
// The fields of /proc/PID/stat between the program's name and the start time.
constexpr int kFieldsBeforeStartTime = 19;
} // namespace

std::optional<uint64_t> ProcessStartTicks(const std::string &processFolder)
{
    std::ifstream file(processFolder + "/stat");
    const std::string status((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    // The program's name is in brackets and may itself contain blanks, brackets and line ends.
    const size_t nameEnd = status.rfind(')');
    if (nameEnd == std::string::npos) {
        return std::nullopt;
    }
    std::istringstream fields(status.substr(nameEnd + 1));
    std::string skipped;
    for (int i = 0; i < kFieldsBeforeStartTime; ++i) {
        fields >> skipped;
    }
    uint64_t ticks = 0;
    return fields >> ticks ? std::optional(ticks) : std::nullopt;
}
