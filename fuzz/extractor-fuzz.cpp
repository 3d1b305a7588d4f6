// Checks that the extractor changes nothing outside the target, for any content of an archive
// without links.

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <thread>

#include <archive.h>
#include <archive_entry.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "extractor/extractor.h"
#include "launcher/strings/str-table.h"
#include "log/log.h"

namespace fs = std::filesystem;

// Aborts if the condition is false. The fuzzer then reports the input.
static void Require(bool holds)
{
    if (!holds) {
        abort();
    }
}

// Creates a folder that any user may write to. Limits files to 1 MiB, because an input may ask for
// larger ones.
static fs::path CreateScratch()
{
    std::string name = fs::temp_directory_path() / "brimlock-fuzz-XXXXXX";
    Require(mkdtemp(name.data()) != nullptr);
    fs::permissions(name, fs::perms::all);
    Logger::Destroy();
    StrTable::InitStrTable();
    const rlimit limit = {1 << 20, 1 << 20};
    setrlimit(RLIMIT_FSIZE, &limit);
    signal(SIGXFSZ, SIG_IGN);
    return name;
}

// Extracts as an ordinary user, and with the scratch folder as root folder, because links may lead
// anywhere. Needs root or `unshare --map-root-user`, which has no other user id (EINVAL).
static void Extract(const fs::path &scratch)
{
    constexpr uid_t nobody = 65534;
    Require(unshare(CLONE_FS) == 0 && chroot(scratch.c_str()) == 0 && chdir("/") == 0);
    Require(syscall(SYS_setresuid, nobody, nobody, nobody) == 0 || errno == EINVAL);
    Extractor extractor;
    extractor.SetSource("/source");
    extractor.SetTarget("/target");
    extractor.Extract();
}

static bool HasLink(const fs::path &source)
{
    const std::unique_ptr<archive, int (*)(archive *)> in(archive_read_new(), archive_read_free);
    archive_read_support_filter_all(in.get());
    archive_read_support_format_all(in.get());
    archive_read_open_filename(in.get(), source.c_str(), 10240);
    archive_entry *entry = nullptr;
    while (archive_read_next_header(in.get(), &entry) == ARCHIVE_OK) {
        if (archive_entry_symlink(entry) != nullptr || archive_entry_hardlink(entry) != nullptr) {
            return true;
        }
    }
    return false;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    static const fs::path scratch = CreateScratch(); // scripts/fuzz removes it
    const fs::path source = scratch / "source";
    const fs::path target = scratch / "target";
    std::ofstream(source) << std::string(bytes, bytes + size);
    fs::create_directory(target);
    fs::permissions(target, fs::perms::all);
    std::thread([] { Extract(scratch); }).join();

    const auto entries = std::distance(fs::directory_iterator(scratch), fs::directory_iterator());
    const bool isIntact = entries == 2 && fs::exists(target) && fs::file_size(source) == size;
    Require(isIntact || HasLink(source));
    for (const auto &entry : fs::directory_iterator(scratch)) {
        fs::remove_all(entry);
    }
    return 0;
}
