#include "fct-qt/process-start.h"

#include <fstream>
#include <iterator>
#include <sstream>

namespace
{
// Fields before it in the file "stat", counted from the state, which follows the program's name in brackets.
constexpr int kFieldsBeforeStartTime = 19;
} // namespace

std::optional<uint64_t> ProcessStartTicks(const std::string &processFolder)
{
    std::ifstream file(processFolder + "/stat");
    const std::string status((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const size_t nameEnd = status.rfind(')'); // the name itself may hold blanks, brackets and line ends
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
