#ifndef BRIMLOCK_FILEOP_SCOPED_FD_H
#define BRIMLOCK_FILEOP_SCOPED_FD_H

#include <cerrno>
#include <utility>

#include <unistd.h>

// Owns a file descriptor and closes it on destruction. A negative one, which a failed open() returns, is not closed.
// The destructor, reset() and an assignment do not change errno, which may hold the error that the function is about to
// report.
class ScopedFd
{
public:
    ScopedFd() = default;
    explicit ScopedFd(int opened) : fd(opened) {}
    ScopedFd(ScopedFd &&other) noexcept : fd(std::exchange(other.fd, -1)) {}
    ScopedFd &operator=(ScopedFd &&other) noexcept
    {
        std::swap(fd, other.fd);
        other.reset();
        return *this;
    }
    ~ScopedFd() { reset(); }

    bool valid() const { return fd >= 0; }
    int get() const { return fd; }

    // Closes it now. Returns false with errno set when close() fails: some file systems report a failed write only
    // then.
    bool Close() { return close(std::exchange(fd, -1)) == 0; }

    // Closes it now.
    void reset()
    {
        const int callerErrno = errno;
        if (valid()) {
            close(fd);
        }
        fd = -1;
        errno = callerErrno;
    }

private:
    int fd = -1;
};

#endif
