// How the logger is set up and torn down, and how its file is kept from growing without bound.

#include "log/log.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <new>

#include <sys/stat.h>

#include "service/config/config.h"

namespace
{
constexpr int32_t kRotateBytes = 5 * 1024 * 1024;
constexpr int32_t kRotateCountAfterDestroy = 32;
constexpr int kDefaultComponentLevel = 4;

// Close-on-exec: the client that the launcher starts must not hold the log file open.
constexpr char kAppend[] = "ae";

using GenerationName = std::array<char, 1024>;

// Generation 0 is the newest. A name that does not fit is cut.
GenerationName NameOf(const std::string &path, int64_t generation)
{
    GenerationName name = {};
    snprintf(name.data(), name.size(), "%s_%lld", path.c_str(), static_cast<long long>(generation));
    return name;
}
} // namespace

int32_t *Logger::log_size = nullptr;
uint64_t *Logger::log_rotated_count_shared = nullptr;
uint64_t Logger::log_rotated_count_private = 0;

int Logger::Initialize(Type type, const std::string &path, const std::string &configPath, int rotateCount,
                       SafetyScope scope)
{
    InitConfig wanted;
    wanted.type = type;
    wanted.path = path;
    wanted.config_path = configPath;
    wanted.rotate_count = rotateCount;
    wanted.safety_scope = scope;
    return Initialize(wanted);
}

int Logger::Initialize(const InitConfig &wanted)
{
    Destroy();
    config = wanted;
    log_path = wanted.path;
    if (config.type != TYPE_FILE) {
        config.safety_scope = SCOPE_NONE;
    }
    InitializeLock();
    InitializeSharedData();
    if (log_size == nullptr || log_rotated_count_shared == nullptr) {
        return -1;
    }
    ReadLevels();
    return OpenSink();
}

void Logger::ReadLevels()
{
    log_level["default_component"] = kDefaultComponentLevel;
    if (config.config_path.empty()) {
        return;
    }
    Config levels;
    levels.read(config.config_path);
    for (const auto &[component, text] : levels.entries) {
        int level = 0;
        std::stringstream(text) >> level;
        log_level[component] = level;
    }
}

int Logger::OpenSink()
{
    int32_t size = -1;
    switch (config.type) {
    case TYPE_SYSLOG:
        log_fp = nullptr;
        log_path.clear();
        break;
    case TYPE_STDOUT:
        log_fp = stdout;
        log_path.clear();
        break;
    case TYPE_STDERR:
        log_fp = stderr;
        log_path.clear();
        break;
    default:
        // Null also when this fails: the next Destroy() must not close a stream that is not the logger's.
        log_fp = log_path.empty() ? nullptr : fopen(log_path.c_str(), kAppend);
        if (log_fp == nullptr) {
            return -1;
        }
        size = GetFileSize(log_path);
        break;
    }
    *log_size = size;
    *log_rotated_count_shared = 0;
    log_rotated_count_private = 0;
    log_initialized = true;
    return 0;
}

void Logger::Destroy()
{
    log_initialized = false;
    if (config.type == TYPE_FILE) {
        if (log_fp != nullptr) {
            fclose(log_fp);
        }
        // Left behind on purpose: a stream, for PrintToFilePointer(), which needs no initialised logger. It
        // does not match its type number, and like the number of generations that is looked at by nobody
        // before the next Initialize() sets them.
        config.type = TYPE_STDERR;
        log_fp = stdout;
        log_path.clear();
        config.rotate_count = kRotateCountAfterDestroy;
    }
    DestroySharedData();
    DestroyLock();
}

// The place for a lock between processes. None is needed: one launcher at a time writes the log, but for the
// few lines of a second one that is about to give up.
void Logger::InitializeFileLock() {}

void Logger::InitializeLock()
{
    InitializeFileLock();
    if (config.safety_scope >= SCOPE_THREAD && log_lock == nullptr) {
        log_lock = new std::mutex;
    }
}

void Logger::DestroyLock()
{
    delete log_lock;
    log_lock = nullptr;
}

void Logger::InitializeSharedData()
{
    if (log_size != nullptr && log_rotated_count_shared != nullptr) {
        return;
    }
    DestroySharedData();
    log_size = new (std::nothrow) int32_t(0);
    log_rotated_count_shared = new (std::nothrow) uint64_t(0);
}

void Logger::DestroySharedData()
{
    delete log_size;
    log_size = nullptr;
    delete log_rotated_count_shared;
    log_rotated_count_shared = nullptr;
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
    // Removes what has just been moved there: of two or more numbers the last always stays free. That is what
    // docs/behaviour.md promises to those who reckon with the space.
    remove(NameOf(log_path, count - 1).data());

    if (log_fp != nullptr) {
        fclose(log_fp);
        log_fp = nullptr;
    }
    if (rename(log_path.c_str(), NameOf(log_path, 0).data()) != 0) {
        return -1;
    }
    log_fp = fopen(log_path.c_str(), kAppend);
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
    log_fp = fopen(log_path.c_str(), kAppend);
    if (log_fp != nullptr) {
        *log_size = GetFileSize(log_path);
        log_rotated_count_private = *log_rotated_count_shared;
    }
}
