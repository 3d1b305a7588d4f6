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

// A process-wide, levelled logger. A message carries a level and the name of a component; each component
// has a threshold of its own, and a message is written when its level is at most that threshold.
//
// Before Initialize() the logger already works: it writes ERROR and WARNING lines, with their time stamp,
// to standard error, so that no failure during start-up goes unseen.
//
// No call that logs a message throws or changes the caller's errno, and a "%m" in a message shows the errno
// that the caller had. Constructors and destructors of static objects may log too, in whatever order the
// program is linked; at the very end of exit() the logger falls silent, also for threads that still run.
class Logger
{
public:
    // Lower is more severe. Values below ERROR are accepted and pass wherever ERROR passes.
    enum Level : int32_t { ERROR = 3, WARNING = 4, NOTE = 5, INFO = 6, DEBUG = 7 };

    // Where the lines go. A value above TYPE_FILE is opened like a file but written, without a time stamp,
    // to standard error.
    enum Type : int32_t { TYPE_SYSLOG = 0, TYPE_STDOUT = 1, TYPE_STDERR = 2, TYPE_FILE = 3 };

    // SCOPE_THREAD serialises the writers of this process. SCOPE_PROCESS also reopens the file before a
    // write when the shared count of rotations has moved.
    enum SafetyScope : int32_t { SCOPE_NONE = 0, SCOPE_THREAD = 1, SCOPE_PROCESS = 2 };

    // A set of bits, for LogMsg3() only.
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

    // Closes what was open, reads the thresholds and opens the sink. Returns 0, or -1 when the log file has
    // no path, is no regular file or cannot be opened, or when there is no memory; the logger then stays
    // silent until a later call succeeds. A missing or malformed level file is no failure. Thresholds of an
    // earlier call stay unless they are set again. Not to be called while another thread logs.
    static int Initialize(const InitConfig &wanted);
    static int Initialize(Type type, const std::string &path, const std::string &configPath, int rotateCount,
                          SafetyScope scope);

    // Whether the last Initialize() was given a level file that is there but could not be used: it is no
    // regular file, too large, unreadable or malformed.
    static bool LevelsUnreadable() { return levels_unreadable; }

    // Closes the log file and silences the logger until the next successful Initialize(). Not to be called
    // while another thread logs.
    static void Destroy();

    // The component's threshold: what the level file says under exactly this name, else 4. A level file's
    // "default_component" is no fall-back for components that the file does not name.
    static int GetCompLevel(const std::string &component);

    // Whether a message of this level would pass. Ask before building a message's arguments.
    static bool IsNeedToLog(Level level, const std::string &component);

    // Write one message, if it passes. The text is written as it is: the line end is the caller's.
    static void LogMsg(Level level, const std::string &component, const char *format, ...)
        __attribute__((format(printf, 3, 4)));
    static void LogMsg2(Level level, const std::string &component, const char *format, va_list args)
        __attribute__((format(printf, 3, 0)));

    // Writes the stream's whole text. FLAG_ERRNO adds ", err=<number>:<text>" when errno is not 0 (the
    // number is appended to `text` itself), FLAG_NEWLINE a line end. Leaves `text` ready to be written to.
    static void LogMsg3(Level level, const std::string &component, std::stringstream &text, ConfigFlag flags);

    // Write a time stamp and the message to the current stream, whatever the level, and flush. Return the
    // number of bytes, a failed call counting -1, or 0 when there is no stream.
    static int PrintToFilePointer(const char *format, ...) __attribute__((format(printf, 1, 2)));
    static int PrintToFilePointerV(const char *format, va_list args) __attribute__((format(printf, 1, 0)));
    static void FlushFileStream(long unused);

    // The write lock; without effect where there is none (see SafetyScope).
    static void Lock();
    static void Unlock();

    static void InitializeFileLock();
    static void InitializeLock();
    static void DestroyLock();
    static void InitializeSharedData();
    static void DestroySharedData();

    // The file's size in bytes, cut to 32 bits. 0, and one line in the current stream, when it cannot be
    // told.
    static int GetFileSize(const std::string &path);

    // Counts `written` bytes and rotates once the file holds more than 5 MiB. Returns 0, or what Rotate()
    // returned. For the writer that holds the lock.
    static int RotateIfFileBig(int written);

    // Renames the log file to generation 0, every older generation to the next number, and starts a new
    // file. Returns 0, or -1 when the file cannot be renamed or opened again: messages are then dropped until
    // the logger is initialised again. For the writer that holds the lock.
    static int Rotate();

    // Under SCOPE_PROCESS: opens the log file again after another writer has rotated it; when that fails, the
    // next write tries again. For the writer that holds the lock.
    static void ReloadLogFile();

private:
    struct Lifetime;

    static int WriteToSink(const char *format, va_list args) __attribute__((format(printf, 1, 0)));
    static int OpenSink();
    static void ReadLevels();

    static constexpr int kDefaultThreshold = WARNING;

    static bool log_initialized;
    static InitConfig config;
    static FILE *log_fp; // null for the system log, and for a file that could not be opened
    static std::string log_path;
    static std::unordered_map<std::string, int> log_level;
    static bool levels_unreadable;
    static Lifetime lifetime;
    static pthread_mutex_t *log_lock;
    static int32_t *log_size; // bytes in the log file; -1 for the other sinks
    static uint64_t *log_rotated_count_shared;
    static uint64_t log_rotated_count_private;
};

// Logger::LogMsg2() for callers that hold no string objects. `component` must not be null.
void LogMSG_c(int level, const char *component, const char *format, va_list args) __attribute__((format(printf, 3, 0)));

// The text after the last "/" of a source file's name.
inline const char *LogSourceName(const char *file)
{
    const char *slash = strrchr(file, '/');
    return slash != nullptr ? slash + 1 : file;
}

// How every message of the program is logged: nothing is evaluated unless the message passes, and its text
// follows the process, the thread, the level's tag and the place in the source. `format` is a string literal
// that ends in "\n", but for the few messages that are known without a line end.
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
