#include "fct-qt/qt-single-application.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
constexpr char kPlatformVariable[] = "QT_QPA_PLATFORM";
constexpr int kHeldByAnother = -2;

// Holds the choice of Qt's platform plugin while the application object is built.
class PlatformChoice
{
public:
    // Lets Qt try what the session offers and then a platform without a display, instead of aborting. A
    // choice that the user made stands.
    explicit PlatformChoice(bool wantsDisplay) : m_isOurs(qEnvironmentVariableIsEmpty(kPlatformVariable))
    {
        if (!m_isOurs) {
            return;
        }
        QByteArray platforms;
        if (wantsDisplay && !qEnvironmentVariableIsEmpty("DISPLAY")) {
            platforms += "xcb;";
        }
        if (wantsDisplay && !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")) {
            platforms += "wayland;";
        }
        qputenv(kPlatformVariable, platforms + "offscreen");
    }

    // The choice is not for the programs that this one starts.
    ~PlatformChoice()
    {
        if (m_isOurs) {
            qunsetenv(kPlatformVariable);
        }
    }

    PlatformChoice(const PlatformChoice &) = delete;
    PlatformChoice &operator=(const PlatformChoice &) = delete;

    // Hands an argument of the base class's constructor through, during which the choice stands.
    int &passing(int &argc) const { return argc; }

private:
    const bool m_isOurs;
};

// The file's place depends on the user alone. Not on the environment, which differs between a desktop
// session, a terminal and a remote login, and not on the home folder, which may be read-only.
QByteArray LockPath()
{
    return "/tmp/.veltrano-brimlock-launcher-" + QByteArray::number(getuid()) + ".lock";
}

// Returns the descriptor that holds the lock, kHeldByAnother, or -1 when no lock can be made. Close-on-exec:
// the client that the launcher starts must not keep the lock.
int TakeLock()
{
    const QByteArray path = LockPath();
    const int fd = open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    if (fd < 0) {
        return -1;
    }
    // A file that somebody else put there could be locked by them for ever.
    struct stat info = {};
    if (fstat(fd, &info) != 0 || info.st_uid != getuid() || !S_ISREG(info.st_mode)) {
        close(fd);
        return -1;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
        return fd;
    }
    const int result = errno == EWOULDBLOCK ? kHeldByAnother : -1;
    close(fd);
    return result;
}
} // namespace

QtSingleApplication::QtSingleApplication(int &argc, char **argv, bool GUIenabled)
    : QApplication(PlatformChoice(GUIenabled).passing(argc), argv), m_lock(TakeLock())
{
}

QtSingleApplication::~QtSingleApplication()
{
    if (m_lock >= 0) {
        close(m_lock);
    }
}

bool QtSingleApplication::isRunning()
{
    if (m_lock < 0) {
        m_lock = TakeLock();
    }
    return m_lock == kHeldByAnother;
}
