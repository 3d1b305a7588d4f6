#include "service/tree-fingerprint.h"

#include <memory>
#include <string_view>

#include <fts.h>
#include <sys/stat.h>

namespace
{
struct TreeCloser {
    void operator()(FTS *tree) const { fts_close(tree); }
};

uint64_t Fingerprint(const struct stat &status)
{
    const uint64_t parts[] = {status.st_dev, status.st_ino, static_cast<uint64_t>(status.st_size),
                              static_cast<uint64_t>(status.st_ctim.tv_sec),
                              static_cast<uint64_t>(status.st_ctim.tv_nsec)};
    return std::hash<std::string_view>()({reinterpret_cast<const char *>(parts), sizeof parts});
}
} // namespace

uint64_t TreeFingerprint(const std::string &path)
{
    std::string root = path; // which the library takes as writable
    char *const roots[] = {root.data(), nullptr};
    const std::unique_ptr<FTS, TreeCloser> tree(fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR, nullptr));
    uint64_t sum = 0; // in whatever order a folder gives its entries
    while (FTSENT *entry = tree ? fts_read(tree.get()) : nullptr) {
        if (entry->fts_info == FTS_DP) {
            continue; // a folder, on the way back
        }
        sum += Fingerprint(*entry->fts_statp);
        struct stat target = {};
        if (entry->fts_info == FTS_SL && stat(entry->fts_accpath, &target) == 0) {
            sum += Fingerprint(target); // which is what is copied
        }
    }
    return sum;
}

uint64_t EntryFingerprint(const std::string &path)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 ? Fingerprint(status) : 0;
}
