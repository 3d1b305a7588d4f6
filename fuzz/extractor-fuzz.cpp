// Checks that the extractor neither crashes nor hangs, whatever an archive contains.

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

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

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    static const fs::path scratch = CreateScratch(); // scripts/fuzz removes it
    std::ofstream(scratch / "source") << std::string(bytes, bytes + size);
    fs::create_directory(scratch / "target");
    fs::permissions(scratch / "target", fs::perms::all);
    std::thread([] { Extract(scratch); }).join();

    for (const auto &entry : fs::directory_iterator(scratch)) {
        fs::remove_all(entry);
    }
    return 0;
}
