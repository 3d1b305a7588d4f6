#include "service/config/config.h"

#include <cerrno>
#include <cstdio>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
// A longer line is split into pieces of this size, and each piece is parsed as a line.
constexpr int kLineBytes = 8192;

constexpr off_t kMaxFileBytes = off_t{1024} * 1024;

struct FileCloser {
    void operator()(FILE *file) const { fclose(file); }
};

// Opens a regular file of at most kMaxFileBytes. Returns null with errno set for any other path.
FILE *OpenRegular(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    struct stat info = {};
    FILE *file = nullptr;
    if (fstat(fd, &info) == 0) {
        if (!S_ISREG(info.st_mode)) {
            errno = EINVAL;
        } else if (info.st_size > kMaxFileBytes) {
            errno = EFBIG;
        } else {
            file = fdopen(fd, "r");
        }
    }
    if (file == nullptr) {
        const int openErrno = errno;
        close(fd);
        errno = openErrno;
    }
    return file;
}

char *SkipSpace(char *cursor)
{
    while (is_space(static_cast<unsigned char>(*cursor))) {
        ++cursor;
    }
    return cursor;
}
} // namespace

bool is_key_char(unsigned char byte)
{
    return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
           byte == '-' || byte == '_' || byte == '.';
}

bool is_value_char(unsigned char byte)
{
    return byte >= 0x20 && byte != 0x7F;
}

bool is_space(unsigned char byte)
{
    return (byte >= 0x09 && byte <= 0x0D) || byte == 0x20;
}

int Config::read(const std::string &path)
{
    if (path.empty()) {
        return -1;
    }
    const std::unique_ptr<FILE, FileCloser> file(OpenRegular(path));
    if (!file) {
        return -1;
    }

    char line[kLineBytes];
    std::string key;
    std::string value;
    while (fgets(line, sizeof line, file.get()) != nullptr) {
        switch (parse(line, key, value)) {
        case 0:
            entries[key] = value;
            break;
        case 1:
            break;
        default:
            entries.clear();
            return -1;
        }
    }
    return 0;
}

int Config::parse(char *line, std::string &key, std::string &value) const
{
    char *const keyBegin = SkipSpace(line);
    char *cursor = keyBegin;
    while (is_key_char(static_cast<unsigned char>(*cursor))) {
        ++cursor;
    }
    char *const keyEnd = cursor;
    if (*cursor == '#' || *cursor == '\0') {
        return 1;
    }

    cursor = SkipSpace(cursor);
    if (*cursor != '=') {
        return 2;
    }
    cursor = SkipSpace(cursor + 1);
    if (*cursor == '\0') {
        return 2;
    }

    const bool quoted = *cursor == '"' || *cursor == '\'';
    const char terminator = quoted ? *cursor++ : ' ';
    char *const valueBegin = cursor;
    while (is_value_char(static_cast<unsigned char>(*cursor)) && *cursor != terminator) {
        ++cursor;
    }
    char *const valueEnd = cursor;
    if (quoted && *cursor++ != terminator) {
        return 2;
    }
    cursor = SkipSpace(cursor);
    if (*cursor != '\0' && *cursor != '#') {
        return 2;
    }

    *keyEnd = '\0';
    *valueEnd = '\0';
    key = keyBegin;
    value = valueBegin;
    if (keep_quotes && quoted) {
        value = terminator + value + terminator;
    }
    return 0;
}
