// Opening and rotating the log file.

#include "log/log-file.h"

#include <array>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

#include "log/log.h"

namespace
{
constexpr int32_t kRotateBytes = 5 * 1024 * 1024;
constexpr mode_t kNewFileMode = 0666;

using GenerationName = std::array<char, 1024>;

// Generation 0 is the newest. A name that is longer than the buffer is cut.
GenerationName NameOf(const std::string &path, int64_t generation)
{
    GenerationName name = {};
    snprintf(name.data(), name.size(), "%s_%lld", path.c_str(), static_cast<long long>(generation));
    return name;
}
} // namespace

FILE *OpenForAppend(const std::string &path)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, kNewFileMode);
    if (fd < 0) {
        return nullptr;
    }
    struct stat info = {};
    FILE *file = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) ? fdopen(fd, "a") : nullptr;
    if (file == nullptr) {
        close(fd);
    }
    return file;
}

int Logger::GetFileSize(const std::string &path)
{
    struct stat info = {};
    if (stat(path.c_str(), &info) != 0) {
        PrintToFilePointer("stat(%s): %s (%d)\n", path.c_str(), strerror(errno), errno);
        return 0;
    }
    return static_cast<int32_t>(info.st_size);
}

int Logger::RotateIfFileBig(int written)
{
    if (config.type != TYPE_FILE || written < 0 || log_size == nullptr) {
        return 0;
    }
    const int64_t size = static_cast<int64_t>(*log_size) + written;
    if (size <= kRotateBytes) {
        *log_size = static_cast<int32_t>(size);
        return 0;
    }
    const int result = Rotate();
    *log_size = 0;
    return result;
}

int Logger::Rotate()
{
    const int64_t count = config.rotate_count;
    for (int64_t i = count - 2; i >= 0; --i) {
        rename(NameOf(log_path, i).data(), NameOf(log_path, i + 1).data());
    }
    // Remove the file that the loop has just renamed to the highest number. The number must stay unused:
    // docs/behaviour.md promises administrators one file less than `rotate_count`.
    remove(NameOf(log_path, count - 1).data());

    if (log_fp != nullptr) {
        fclose(log_fp);
        log_fp = nullptr;
    }
    if (rename(log_path.c_str(), NameOf(log_path, 0).data()) != 0) {
        return -1;
    }
    log_fp = OpenForAppend(log_path);
    if (log_fp == nullptr) {
        return -1;
    }
    if (log_rotated_count_shared != nullptr) {
        ++*log_rotated_count_shared;
    }
    ++log_rotated_count_private;
    return 0;
}

void Logger::ReloadLogFile()
{
    if (config.type != TYPE_FILE || config.safety_scope < SCOPE_PROCESS || log_rotated_count_shared == nullptr ||
        *log_rotated_count_shared == log_rotated_count_private) {
        return;
    }
    if (log_fp != nullptr) {
        fclose(log_fp);
    }
    log_fp = OpenForAppend(log_path);
    if (log_fp != nullptr) {
        *log_size = GetFileSize(log_path);
        log_rotated_count_private = *log_rotated_count_shared;
    }
}
