// bare-copy SOURCE TARGET: copies a folder of folders and files, 8 KiB at a time, and does nothing else.

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static void require(int holds, const char *what)
{
    if (!holds) {
        perror(what);
        exit(1);
    }
}

static void copy_file(const char *source, const char *target)
{
    char buffer[8192];
    struct stat info;
    const int in = open(source, O_RDONLY);
    require(in >= 0 && fstat(in, &info) == 0, source);
    const int out = open(target, O_WRONLY | O_CREAT | O_TRUNC, info.st_mode);
    require(out >= 0, target);
    ssize_t size;
    while ((size = read(in, buffer, sizeof buffer)) > 0) {
        require(write(out, buffer, (size_t)size) == size, target);
    }
    require(size == 0, source);
    close(in);
    close(out);
}

static void copy_folder(const char *source, const char *target)
{
    char from[PATH_MAX];
    char to[PATH_MAX];
    require(mkdir(target, 0777) == 0, target);
    DIR *dir = opendir(source);
    require(dir != NULL, source);
    for (const struct dirent *entry; (entry = readdir(dir)) != NULL;) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) {
            continue;
        }
        snprintf(from, sizeof from, "%s/%s", source, entry->d_name);
        snprintf(to, sizeof to, "%s/%s", target, entry->d_name);
        if (entry->d_type == DT_DIR) {
            copy_folder(from, to);
        } else {
            copy_file(from, to);
        }
    }
    closedir(dir);
}

int main(int argc, char **argv)
{
    require(argc == 3, "usage: bare-copy SOURCE TARGET");
    copy_folder(argv[1], argv[2]);
    return 0;
}
