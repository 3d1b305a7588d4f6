#include "fct-qt/qt-single-application.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include <QDir>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "fct-qt/process-start-time.h"

namespace
{
constexpr int kBindTries = 20;
constexpr useconds_t kBindPauseMicroseconds = 1000;

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

// The address of the user's instance socket. It depends on the user alone and not on the environment, which differs
// between a desktop session, a terminal and a remote login. It is abstract: it is no file, so no full or read-only disk
// and no clean-up of temporary files affects it, and it ends with the process.
socklen_t InstanceAddress(sockaddr_un &address)
{
    const QByteArray name = "veltrano-brimlock-launcher-" + QByteArray::number(getuid());
    address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, name.constData(), static_cast<size_t>(name.size())); // after a 0: abstract
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + static_cast<size_t>(name.size()));
}

int NewSocket()
{
    return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

// Who listens at the instance address.
enum class Listener { kThisProcess, kSameUser, kNobody, kUnknown };

// Connects to the address. kUnknown: another user listens, or the queue of connections is full.
Listener FindListener(const sockaddr_un &address, socklen_t size)
{
    const int fd = NewSocket();
    const bool isConnected = connect(fd, reinterpret_cast<const sockaddr *>(&address), size) == 0;
    Listener listener = !isConnected && errno == ECONNREFUSED ? Listener::kNobody : Listener::kUnknown;
    ucred peer = {};
    socklen_t peerSize = sizeof peer;
    if (isConnected && getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &peerSize) == 0 && peer.uid == getuid()) {
        listener = Listener::kSameUser;
    }
    close(fd);
    return listener;
}

// Binds a socket to the instance address and listens. Sets `fd` to it, or to -1 when the result is not kThisProcess.
Listener BindInstanceSocket(int &fd)
{
    sockaddr_un address;
    const socklen_t size = InstanceAddress(address);
    Listener listener = Listener::kUnknown;
    fd = NewSocket();
    for (int tries = 0; fd >= 0 && tries < kBindTries; ++tries) {
        if (bind(fd, reinterpret_cast<const sockaddr *>(&address), size) == 0 && listen(fd, SOMAXCONN) == 0) {
            return Listener::kThisProcess;
        }
        listener = errno == EADDRINUSE ? FindListener(address, size) : Listener::kUnknown;
        if (listener != Listener::kNobody) {
            break;
        }
        usleep(kBindPauseMicroseconds); // its owner is about to listen, or has just ended
    }
    close(fd);
    fd = -1;
    return listener;
}

bool IsSameFile(const std::string &path, const std::string &other)
{
    struct stat status = {};
    struct stat otherStatus = {};
    return stat(path.c_str(), &status) == 0 && stat(other.c_str(), &otherStatus) == 0 &&
           status.st_dev == otherStatus.st_dev && status.st_ino == otherStatus.st_ino;
}

// The moment from which other launchers take a process for a launcher: the start time of its first thread besides the
// main one, and the id of this thread. The start time of the process itself is not used, because it is that of fork().
// The process may have executed this program much later, after another launcher had searched for it and not found it.
using Arrival = std::pair<uint64_t, pid_t>;

std::optional<Arrival> FindArrival(pid_t pid)
{
    const QString threads = "/proc/" + QString::number(pid) + "/task/";
    std::optional<Arrival> first;
    for (const QString &name : QDir(threads).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const pid_t thread = name.toInt();
        const std::optional<uint64_t> started = ProcessStartTicks((threads + name).toStdString());
        if (thread != pid && started && (!first || Arrival(*started, thread) < *first)) {
            first = Arrival(*started, thread);
        }
    }
    return first;
}

// Whether another process of this user runs this program and arrived earlier. Processes in other network namespaces do
// not count, because instance sockets are not shared with them either.
bool HasEarlierInstance()
{
    // Create the thread before looking at other processes. So of two launchers at least the later one sees the other.
    pthread_t thread = 0;
    pthread_create(
        &thread, nullptr,
        [](void *) -> void * {
            for (;;) {
                pause();
            }
        },
        nullptr);
    const std::optional<Arrival> own = FindArrival(getpid());
    for (const QString &name : QDir("/proc").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const pid_t pid = name.toInt();
        const std::string process = "/proc/" + name.toStdString();
        struct stat status = {};
        if (pid <= 0 || pid == getpid() || stat(process.c_str(), &status) != 0 || status.st_uid != getuid() ||
            !IsSameFile(process + "/exe", "/proc/self/exe") || !IsSameFile(process + "/ns/net", "/proc/self/ns/net")) {
            continue;
        }
        const std::optional<Arrival> arrival = FindArrival(pid);
        if (arrival && (!own || *arrival < *own)) {
            return true;
        }
    }
    return false;
}

// Qt reads QT_FATAL_WARNINGS and QT_FATAL_CRITICALS once in a process, at the first critical message. Sends such a
// message, which is not shown.
void LetQtReadFatalVariables()
{
    const QtMessageHandler handler =
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    qCritical("-");
    qInstallMessageHandler(handler);
}
} // namespace

QtEnvironment::QtEnvironment(bool wantsDisplay)
{
    Set("QT_QPA_PLATFORM", Platforms(wantsDisplay, qgetenv("QT_QPA_PLATFORM")));
    Set("QT_QPA_PLATFORMTHEME", "");
    Set("QT_STYLE_OVERRIDE", "");
    Set("QT_IM_MODULE", "none");
    // The theme of KDE is a part of Qt. For another desktop, Qt would load a library of that desktop.
    if (!qgetenv("XDG_CURRENT_DESKTOP").split(':').contains("KDE")) {
        Set("XDG_CURRENT_DESKTOP", "none");
        Set("DESKTOP_SESSION", "");
    }
    Set("QT_FATAL_WARNINGS", "");
    Set("QT_FATAL_CRITICALS", "");
    LetQtReadFatalVariables();
}

void QtEnvironment::Set(const char *name, const QByteArray &value)
{
    original.emplace_back(name, qgetenv(name));
    qputenv(name, value);
}

void QtEnvironment::RestoreEnvironment() const
{
    for (const auto &[name, value] : original) {
        if (value.isNull()) {
            qunsetenv(name);
        } else {
            qputenv(name, value);
        }
    }
}

QtSingleApplication::QtSingleApplication(int &argc, char **argv, bool GUIenabled)
    : QtEnvironment(GUIenabled), QApplication(argc, argv)
{
    RestoreEnvironment();
    // Otherwise each window sets up OpenGL, which is slow and crashes if the display disappears meanwhile.
    setAttribute(Qt::AA_ForceRasterWidgets);
}

QtSingleApplication::~QtSingleApplication()
{
    if (instanceSocket >= 0) {
        close(instanceSocket);
    }
}

bool QtSingleApplication::isRunning()
{
    if (instanceSocket >= 0) {
        return false;
    }
    switch (BindInstanceSocket(instanceSocket)) {
    case Listener::kThisProcess:
        return false;
    case Listener::kSameUser:
        return true;
    default: // another user holds the address or keeps its queue full
        return HasEarlierInstance();
    }
}
