#ifndef BRIMLOCK_FILEOP_SCOPED_FD_H
#define BRIMLOCK_FILEOP_SCOPED_FD_H

#include <cerrno>

#include <unistd.h>

// Owns a file descriptor and closes it on destruction. A negative one, which a failed open() returns, is not closed.
// The destructor and reset() do not change errno, which may hold the error that the function is about to report.
class ScopedFd
{
public:
    explicit ScopedFd(int opened) : fd(opened) {}
    ~ScopedFd() { reset(); }
    ScopedFd(const ScopedFd &) = delete;
    ScopedFd &operator=(const ScopedFd &) = delete;

    bool valid() const { return fd >= 0; }
    int get() const { return fd; }

    // Closes it now. Returns false with errno set when close() fails: some file systems report a failed write only
    // then.
    bool Close()
    {
        const int closing = fd;
        fd = -1;
        return close(closing) == 0;
    }

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
    int fd;
};

#endif
