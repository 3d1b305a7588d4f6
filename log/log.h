#ifndef BRIMLOCK_LOG_LOG_H
#define BRIMLOCK_LOG_LOG_H

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <unordered_map>

#include <pthread.h>
#include <unistd.h>

// A logger with levels for the whole process. A message has a level and the name of a component. Each component has a
// threshold: a message is written when its level is at most that threshold.
//
// Before Initialize() the logger writes ERROR and WARNING lines, with a time stamp, to standard error, so that failures
// during start-up are visible.
//
// No call that logs a message throws or changes the caller's errno, and "%m" in a message shows the caller's errno.
// Constructors and destructors of static objects may log, in any order, and so may threads that still run at the end of
// exit().
class Logger
{
public:
    // Lower is more severe. Values below ERROR are accepted and pass wherever ERROR passes.
    enum Level : int32_t { ERROR = 3, WARNING = 4, NOTE = 5, INFO = 6, DEBUG = 7 };

    // Where the lines are written to. For a value above TYPE_FILE the file is opened, but the lines go to standard
    // error, without a time stamp.
    enum Type : int32_t { TYPE_SYSLOG = 0, TYPE_STDOUT = 1, TYPE_STDERR = 2, TYPE_FILE = 3 };

    // SCOPE_THREAD: a mutex lets one thread write at a time. SCOPE_PROCESS: in addition, a write reopens the file first
    // when the shared count of rotations has changed.
    enum SafetyScope : int32_t { SCOPE_NONE = 0, SCOPE_THREAD = 1, SCOPE_PROCESS = 2 };

    // Bits for LogMsg3(), to be combined with "|".
    enum ConfigFlag : int32_t { FLAG_NEWLINE = 2, FLAG_ERRNO = 4 };
    friend constexpr ConfigFlag operator|(ConfigFlag a, ConfigFlag b)
    {
        return static_cast<ConfigFlag>(static_cast<int32_t>(a) | static_cast<int32_t>(b));
    }

    struct InitConfig {
        Type type = TYPE_STDOUT;
        std::string path;        // the log file, for TYPE_FILE
        std::string config_path; // "component=threshold" lines; empty: none
        int32_t rotate_count = 50;
        SafetyScope safety_scope = SCOPE_THREAD;
    };

    // Closes the current sink, reads the thresholds and opens the new sink. Returns 0, or -1 when the log file has no
    // path, is not a regular file or cannot be opened, or when there is no memory; the logger then writes nothing until
    // a later call succeeds. A missing or malformed level file is not a failure. A threshold of an earlier call stays
    // when the level file does not name its component. No other thread may log during the call.
    static int Initialize(const InitConfig &wanted);
    static int Initialize(Type type, const std::string &path, const std::string &configPath, int rotateCount,
                          SafetyScope scope);

    // Whether the level file of the last Initialize() exists but could not be used: it is not a regular file, too
    // large, unreadable or malformed.
    static bool LevelsUnreadable() { return levels_unreadable; }

    // Closes the log file. The logger writes nothing until the next successful Initialize(). No other thread may log
    // during the call.
    static void Destroy();

    // The threshold of the component: the value in the level file under exactly this name, else 4. The value of
    // "default_component" in a level file is not used for components that the file does not name.
    static int GetCompLevel(const std::string &component);

    // Whether a message of this level is written. To be called before the arguments of a message are computed.
    static bool IsNeedToLog(Level level, const std::string &component);

    // Write one message if its level passes. No line end is added.
    static void LogMsg(Level level, const std::string &component, const char *format, ...)
        __attribute__((format(printf, 3, 4)));
    static void LogMsg2(Level level, const std::string &component, const char *format, va_list args)
        __attribute__((format(printf, 3, 0)));

    // Writes the whole text of the stream. FLAG_ERRNO adds ", err=<number>:<text>" when errno is not 0, and appends the
    // part up to the colon to `text` too. FLAG_NEWLINE adds a line end. More can be written to `text` afterwards.
    static void LogMsg3(Level level, const std::string &component, std::stringstream &text, ConfigFlag flags);

    // Write a time stamp and the message to the current stream, without looking at a level, and flush. Return the sum
    // of the bytes of both, where a failed write counts -1, or 0 when there is no stream.
    static int PrintToFilePointer(const char *format, ...) __attribute__((format(printf, 1, 2)));
    static int PrintToFilePointerV(const char *format, va_list args) __attribute__((format(printf, 1, 0)));
    static void FlushFileStream(long unused);

    // Lock and unlock the writers' mutex. They do nothing when there is none, see SafetyScope.
    static void Lock();
    static void Unlock();

    static void InitializeFileLock();
    static void InitializeLock();
    static void DestroyLock();
    static void InitializeSharedData();
    static void DestroySharedData();

    // The size of the file in bytes, as 32 bits. 0, with one line in the current stream, when stat() fails.
    static int GetFileSize(const std::string &path);

    // Adds `written` to the counted size, and rotates when the file is larger than 5 MiB. Returns 0, or the result of
    // Rotate(). The caller holds the lock.
    static int RotateIfFileBig(int written);

    // Renames the log file to generation 0 and each older generation to the next number, and opens a new file. Returns
    // 0, or -1 when the file cannot be renamed or opened: messages are then dropped until the next Initialize(). The
    // caller holds the lock.
    static int Rotate();

    // Under SCOPE_PROCESS, opens the log file again when another writer has rotated it. When that fails, the next write
    // tries again. The caller holds the lock.
    static void ReloadLogFile();

private:
    union Objects;

    static int WriteToSink(const char *format, va_list args) __attribute__((format(printf, 1, 0)));
    static int OpenSink();
    static void ReadLevels();

    static constexpr int kDefaultThreshold = WARNING;

    static bool log_initialized;
    static Objects objects;
    static InitConfig &config;
    static FILE *log_fp; // null for the system log, and for a file that could not be opened
    static std::string &log_path;
    static std::unordered_map<std::string, int> &log_level;
    static bool levels_unreadable;
    static pthread_mutex_t *log_lock;
    static int32_t *log_size; // bytes in the log file; -1 for the other sinks
    static uint64_t *log_rotated_count_shared;
    static uint64_t log_rotated_count_private;
};

// Logger::LogMsg2() for callers that have no std::string. `component` must not be null.
void LogMSG_c(int level, const char *component, const char *format, va_list args) __attribute__((format(printf, 3, 0)));

// The text after the last "/" of a source file's name.
inline const char *LogSourceName(const char *file)
{
    const char *slash = strrchr(file, '/');
    return slash != nullptr ? slash + 1 : file;
}

// All messages of the program are logged through this macro. It evaluates the arguments only when the message is
// written, and puts process, thread, level and source line before the text. `format` is a string literal that ends in
// "\n", except for three messages that log readers know without a line end.
#define LOGGER_WRITE(level, component, format, ...)                                                                    \
    do {                                                                                                               \
        if (Logger::IsNeedToLog(Logger::level, component)) {                                                           \
            Logger::LogMsg(Logger::level, component, "(%5d:%5d) [" #level "] %s(%d): " format,                         \
                           static_cast<int>(getpid()), static_cast<int>(pthread_self() % 100000),                      \
                           LogSourceName(__FILE__), __LINE__, ##__VA_ARGS__);                                          \
        }                                                                                                              \
    } while (false)

#define LOGGER_ERROR(component, ...) LOGGER_WRITE(ERROR, component, __VA_ARGS__)
#define LOGGER_WARNING(component, ...) LOGGER_WRITE(WARNING, component, __VA_ARGS__)
#define LOGGER_NOTE(component, ...) LOGGER_WRITE(NOTE, component, __VA_ARGS__)
#define LOGGER_INFO(component, ...) LOGGER_WRITE(INFO, component, __VA_ARGS__)
#define LOGGER_DEBUG(component, ...) LOGGER_WRITE(DEBUG, component, __VA_ARGS__)

#endif
