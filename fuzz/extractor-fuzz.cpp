// The extractor: whatever bytes the archive is made of, nothing outside the target changes unless a link leads there.

#include <iterator>
#include <memory>
#include <thread>

#include <archive.h>
#include <archive_entry.h>

#include "extractor/extractor.h"
#include "fuzz/scratch.h"
#include "launcher/strings/str-table.h"

namespace fs = std::filesystem;

static bool HasLink(const fs::path &source)
{
    const std::unique_ptr<archive, int (*)(archive *)> reader(archive_read_new(), archive_read_free);
    archive_read_support_filter_all(reader.get());
    archive_read_support_format_all(reader.get());
    archive_read_open_filename(reader.get(), source.c_str(), 10240);
    archive_entry *entry = nullptr;
    while (archive_read_next_header(reader.get(), &entry) == ARCHIVE_OK) {
        if (archive_entry_symlink(entry) != nullptr || archive_entry_hardlink(entry) != nullptr) {
            return true;
        }
    }
    return false;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    static const fs::path source = Scratch() / "source";
    static const fs::path target = Scratch() / "target";
    StrTable::InitStrTable();
    WriteInput(source, bytes, size);
    fs::create_directory(target);
    fs::permissions(target, fs::perms::all);
    std::thread([] {
        ShutIn();
        Extractor extractor;
        extractor.SetSource("/source");
        extractor.SetTarget("/target");
        extractor.Extract();
    }).join();

    const auto entries = std::distance(fs::directory_iterator(Scratch()), fs::directory_iterator());
    Require((entries == 2 && fs::exists(target) && fs::file_size(source) == size) || HasLink(source));
    for (const auto &entry : fs::directory_iterator(Scratch())) {
        fs::remove_all(entry);
    }
    return 0;
}
