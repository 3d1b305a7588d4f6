// Initialising and destroying the logger.

#include <cstdlib>
#include <sstream>

#include <unistd.h>

#include "log/log-file.h"
#include "log/log.h"
#include "service/config/config.h"

namespace
{
constexpr int32_t kRotateCountAfterDestroy = 32;
} // namespace

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
    // If a step below fails, the next Destroy() must not close the old stream, which may be stdout.
    log_fp = nullptr;
    config = wanted;
    log_path = wanted.path;
    if (config.type != TYPE_FILE) {
        config.safety_scope = SCOPE_NONE;
    }
    InitializeLock();
    InitializeSharedData();
    if (log_size == nullptr || log_rotated_count_shared == nullptr ||
        (config.safety_scope >= SCOPE_THREAD && log_lock == nullptr)) {
        return -1;
    }
    ReadLevels();
    return OpenSink();
}

void Logger::ReadLevels()
{
    log_level["default_component"] = kDefaultThreshold;
    levels_unreadable = false;
    if (config.config_path.empty()) {
        return;
    }
    Config levels;
    levels_unreadable = levels.read(config.config_path) != 0 && access(config.config_path.c_str(), F_OK) == 0;
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
        log_fp = log_path.empty() ? nullptr : OpenForAppend(log_path);
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
        // PrintToFilePointer() also works after Destroy(), and then writes to stdout, although the type is TYPE_STDERR.
        // Both values, and the count below, have always been set here. The next Initialize() replaces them.
        config.type = TYPE_STDERR;
        log_fp = stdout;
        log_path.clear();
        config.rotate_count = kRotateCountAfterDestroy;
    }
    DestroySharedData();
    DestroyLock();
}

// A lock between processes would be set up here. None is needed: one launcher at a time writes the log, except for the
// few lines of a second launcher before it exits.
void Logger::InitializeFileLock() {}

void Logger::InitializeLock()
{
    InitializeFileLock();
    if (config.safety_scope >= SCOPE_THREAD && log_lock == nullptr) {
        log_lock = static_cast<pthread_mutex_t *>(malloc(sizeof *log_lock));
        if (log_lock != nullptr) {
            pthread_mutex_init(log_lock, nullptr);
        }
    }
}

void Logger::DestroyLock()
{
    if (log_lock != nullptr) {
        pthread_mutex_destroy(log_lock);
        free(log_lock);
        log_lock = nullptr;
    }
}

void Logger::InitializeSharedData()
{
    if (log_size != nullptr && log_rotated_count_shared != nullptr) {
        return;
    }
    DestroySharedData();
    log_size = static_cast<int32_t *>(malloc(sizeof *log_size));
    log_rotated_count_shared = static_cast<uint64_t *>(malloc(sizeof *log_rotated_count_shared));
}

void Logger::DestroySharedData()
{
    free(log_size);
    log_size = nullptr;
    free(log_rotated_count_shared);
    log_rotated_count_shared = nullptr;
}
