#include "fct-qt/qt-single-application.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "fct-qt/process-start-time.h"

namespace
{
constexpr int kGuardNames = 8;
constexpr int kListenTries = 20;
constexpr useconds_t kListenPauseMicroseconds = 1000;

QByteArray Platforms(bool wantsDisplay, const QByteArray &chosen)
{
    QByteArray last = "offscreen";
    if (!wantsDisplay) {
        return last;
    }
    if (!chosen.isEmpty()) {
        return chosen + ";" + last;
    }
    QByteArray offered;
    offered += qEnvironmentVariableIsEmpty("DISPLAY") ? "" : "xcb;";
    offered += qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") ? "" : "wayland;";
    return offered + last;
}

// A name that depends on the user alone. Not on the environment, which differs between a desktop session, a terminal
// and a remote login. It is no file's: there is nothing that could be full, read-only or cleaned away, and it goes
// with the process.
socklen_t GuardAddress(int number, sockaddr_un &address)
{
    const QByteArray name = "veltrano-brimlock-launcher-" + QByteArray::number(getuid()) +
                            (number == 0 ? QByteArray() : "-" + QByteArray::number(number));
    address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, name.constData(), static_cast<size_t>(name.size())); // after a 0: abstract
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + static_cast<size_t>(name.size()));
}

int NewSocket()
{
    return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

enum class Holder { kUs, kSameUser, kStranger, kNobody };

// Who listens under the name.
Holder AskHolder(const sockaddr_un &address, socklen_t size)
{
    const int fd = NewSocket();
    const bool isConnected = connect(fd, reinterpret_cast<const sockaddr *>(&address), size) == 0;
    Holder holder = isConnected || errno != ECONNREFUSED ? Holder::kStranger : Holder::kNobody;
    ucred peer = {};
    socklen_t peerSize = sizeof peer;
    if (isConnected && getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &peerSize) == 0 && peer.uid == getuid()) {
        holder = Holder::kSameUser;
    }
    close(fd);
    return holder;
}

// Returns Holder::kUs with the socket that now holds the name.
Holder TakeName(int number, int &fd)
{
    sockaddr_un address;
    const socklen_t size = GuardAddress(number, address);
    fd = NewSocket();
    for (int tries = 0; fd >= 0 && tries < kListenTries; ++tries) {
        if (bind(fd, reinterpret_cast<const sockaddr *>(&address), size) == 0 && listen(fd, SOMAXCONN) == 0) {
            return Holder::kUs;
        }
        const Holder holder = errno == EADDRINUSE ? AskHolder(address, size) : Holder::kStranger;
        if (holder != Holder::kNobody) {
            close(fd);
            return holder;
        }
        usleep(kListenPauseMicroseconds); // it is about to listen, or has just ended
    }
    close(fd);
    return Holder::kStranger;
}
bool IsSame(const std::string &path, const std::string &other)
{
    struct stat status = {};
    struct stat otherStatus = {};
    return stat(path.c_str(), &status) == 0 && stat(other.c_str(), &otherStatus) == 0 &&
           status.st_dev == otherStatus.st_dev && status.st_ino == otherStatus.st_ino;
}

bool IsOlder(const std::string &process, pid_t pid)
{
    const std::optional<uint64_t> started = ProcessStartTicks(process);
    return started && std::pair(started, pid) < std::pair(ProcessStartTicks("/proc/self"), getpid());
}

// Whether this user already runs this program, as the list of processes has it. Of two, one is the older.
bool HasOlderTwin()
{
    std::error_code none;
    for (const auto &entry : std::filesystem::directory_iterator("/proc", none)) {
        const std::string process = entry.path().string();
        const pid_t pid = atoi(entry.path().filename().c_str());
        struct stat status = {};
        if (pid > 0 && stat(process.c_str(), &status) == 0 && status.st_uid == getuid() &&
            IsSame(process + "/exe", "/proc/self/exe") && IsSame(process + "/ns/net", "/proc/self/ns/net") &&
            IsOlder(process, pid)) {
            return true;
        }
    }
    return false;
}
} // namespace

PlatformChoice::PlatformChoice(bool wantsDisplay)
{
    Set("QT_QPA_PLATFORM", Platforms(wantsDisplay, qgetenv("QT_QPA_PLATFORM")));
    Set("QT_QPA_PLATFORMTHEME", "");
    Set("QT_STYLE_OVERRIDE", "");
    Set("QT_IM_MODULE", "none");
    // Qt itself knows the themes of one desktop; for the others it would ask their own libraries.
    if (!qgetenv("XDG_CURRENT_DESKTOP").split(':').contains("KDE")) {
        Set("XDG_CURRENT_DESKTOP", "none");
        Set("DESKTOP_SESSION", "");
    }
}

void PlatformChoice::Set(const char *name, const QByteArray &value)
{
    own.emplace_back(name, qgetenv(name));
    qputenv(name, value);
}

void PlatformChoice::PutBack() const
{
    for (const auto &[name, value] : own) {
        if (value.isNull()) {
            qunsetenv(name);
        } else {
            qputenv(name, value);
        }
    }
}

QtSingleApplication::QtSingleApplication(int &argc, char **argv, bool GUIenabled)
    : PlatformChoice(GUIenabled), QApplication(argc, argv)
{
    PutBack();
    // Else each window sets up OpenGL, which is slow, and crashes when the display goes away meanwhile.
    setAttribute(Qt::AA_ForceRasterWidgets);
    TakeGuard();
}

QtSingleApplication::~QtSingleApplication()
{
    DropGuard();
}

bool QtSingleApplication::isRunning()
{
    return guard.empty() && !TakeGuard();
}

// Takes every name that is free, in order, and passes over those that another user holds, who can keep nobody from
// the rest. False: another process of this user holds one. Everybody goes the same way, so of two that come at once
// one meets the other, and never both: the first name that they can have at all decides.
bool QtSingleApplication::TakeGuard()
{
    bool hasMetStranger = false;
    for (int number = 0; number < kGuardNames; ++number) {
        int fd = -1;
        const Holder holder = TakeName(number, fd);
        if (holder == Holder::kSameUser) {
            DropGuard();
            return false;
        }
        if (holder == Holder::kUs) {
            guard.push_back(fd);
        }
        hasMetStranger = hasMetStranger || holder == Holder::kStranger;
    }
    // Who takes all the names, or floods them so that they do not answer, hides no launcher.
    if (hasMetStranger && HasOlderTwin()) {
        DropGuard();
        return false;
    }
    return true;
}

void QtSingleApplication::DropGuard()
{
    for (const int fd : guard) {
        close(fd);
    }
    guard.clear();
}
