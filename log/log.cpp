#include "log/log.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include <syslog.h>

namespace
{
constexpr size_t kStampBytes = 512;
constexpr size_t kZoneBytes = 256;

// Saves errno and restores it on destruction. restore() also restores it before a "%m" is formatted.
class ErrnoKeeper
{
public:
    ~ErrnoKeeper() { restore(); }
    void restore() const { errno = saved; }
    int value() const { return saved; }

private:
    const int saved = errno;
};

// The local time, followed by a blank. It is formatted again only when the second or TZ has changed, because reading
// the time zone costs system calls. Each thread has its own buffer, because not every sink is locked.
const char *TimeStamp()
{
    thread_local char stamp[kStampBytes] = "";
    thread_local time_t stampSecond = -1;
    // A longer TZ is cut. It then never compares equal, and the stamp is formatted for each message.
    thread_local char stampZone[kZoneBytes] = "";

    const time_t now = time(nullptr);
    const char *zone = getenv("TZ");
    if (zone == nullptr) {
        zone = "/etc/localtime"; // the meaning of an unset TZ
    }
    if (now != stampSecond || strcmp(zone, stampZone) != 0) {
        tzset();
        tm local = {};
        localtime_r(&now, &local);
        strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S ", &local);
        stampSecond = now;
        snprintf(stampZone, sizeof stampZone, "%s", zone);
    }
    return stamp;
}
} // namespace

// The logger is ready before Initialize() and writes to standard error with time stamps, so that early failures are
// visible.
bool Logger::log_initialized = true;
FILE *Logger::log_fp = nullptr;
bool Logger::levels_unreadable = false;
pthread_mutex_t *Logger::log_lock = nullptr;
int32_t *Logger::log_size = nullptr;
uint64_t *Logger::log_rotated_count_shared = nullptr;
uint64_t Logger::log_rotated_count_private = 0;

// The objects of the logger. Their destructors are never called: destructors of static objects, and threads that still
// run at the end of exit(), may log.
union Logger::Objects {
    Objects() : members() { log_fp = stderr; }
    ~Objects() {}

    struct {
        InitConfig config;
        std::string path;
        std::unordered_map<std::string, int> levels;
    } members;
};
// init_priority: constructed before all ordinary static objects, so that these may log.
[[gnu::init_priority(101)]] Logger::Objects Logger::objects;
Logger::InitConfig &Logger::config = objects.members.config;
std::string &Logger::log_path = objects.members.path;
std::unordered_map<std::string, int> &Logger::log_level = objects.members.levels;

int Logger::GetCompLevel(const std::string &component)
{
    const auto found = log_level.find(component);
    return found != log_level.end() ? found->second : kDefaultThreshold;
}

bool Logger::IsNeedToLog(Level level, const std::string &component)
{
    return log_initialized && level <= GetCompLevel(component);
}

void Logger::LogMsg(Level level, const std::string &component, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    LogMsg2(level, component, format, args);
    va_end(args);
}

void Logger::LogMsg2(Level level, const std::string &component, const char *format, va_list args)
{
    const ErrnoKeeper callerErrno;
    if (!IsNeedToLog(level, component)) {
        return;
    }

    Lock();
    // log_fp may only be read under the lock, because a rotation closes and opens it.
    ReloadLogFile();
    if (config.type == TYPE_SYSLOG || log_fp != nullptr) {
        callerErrno.restore();
        RotateIfFileBig(WriteToSink(format, args));
    }
    Unlock();
}

void Logger::LogMsg3(Level level, const std::string &component, std::stringstream &text, ConfigFlag flags)
{
    const ErrnoKeeper callerErrno;
    const bool withErrno = (flags & FLAG_ERRNO) != 0 && callerErrno.value() != 0;
    const bool withNewline = (flags & FLAG_NEWLINE) != 0;

    if (withErrno) {
        text.clear();
        text.seekp(0, std::ios::end);
        text << ", err=" << std::to_string(callerErrno.value()) << ":";
    }
    const std::string whole = text.str();
    callerErrno.restore();
    if (withErrno) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat" // "%m" is the C library's, not the language standard's
        LogMsg(level, component, withNewline ? "%s%m\n" : "%s%m", whole.c_str());
#pragma GCC diagnostic pop
    } else {
        LogMsg(level, component, withNewline ? "%s\n" : "%s", whole.c_str());
    }
}

void LogMSG_c(int level, const char *component, const char *format, va_list args)
{
    Logger::LogMsg2(static_cast<Logger::Level>(level), component, format, args);
}

int Logger::WriteToSink(const char *format, va_list args)
{
    switch (config.type) {
    case TYPE_SYSLOG:
        // All levels have this priority: readers of the system log take the level from the text.
        vsyslog(LOG_ERR, format, args);
        return 0;
    case TYPE_STDOUT:
    case TYPE_STDERR:
    case TYPE_FILE:
        return PrintToFilePointerV(format, args);
    }
    vfprintf(stderr, format, args);
    return 0;
}

int Logger::PrintToFilePointer(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int written = PrintToFilePointerV(format, args);
    va_end(args);
    return written;
}

int Logger::PrintToFilePointerV(const char *format, va_list args)
{
    const ErrnoKeeper callerErrno;
    if (log_fp == nullptr) {
        return 0;
    }
    const char *stamp = TimeStamp();
    const int stampBytes = fputs(stamp, log_fp) < 0 ? -1 : static_cast<int>(strlen(stamp));
    callerErrno.restore();
    const int messageBytes = vfprintf(log_fp, format, args);
    FlushFileStream(0);
    return stampBytes + messageBytes;
}

void Logger::FlushFileStream(long)
{
    if (log_fp != nullptr) {
        fflush(log_fp);
    }
}

void Logger::Lock()
{
    if (log_lock != nullptr) {
        pthread_mutex_lock(log_lock);
    }
}

void Logger::Unlock()
{
    if (log_lock != nullptr) {
        pthread_mutex_unlock(log_lock);
    }
}
