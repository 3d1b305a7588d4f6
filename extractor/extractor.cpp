#include "extractor/extractor.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>

#include "launcher/notify/notify-adapter.h"
#include "launcher/strings/str-table.h"
#include "log/log.h"

namespace
{
const std::string kComponent = "extractor_debug";
constexpr size_t kBlockBytes = 10240;
constexpr int kDiskOptions = ARCHIVE_EXTRACT_UNLINK | ARCHIVE_EXTRACT_SECURE_NODOTDOT | ARCHIVE_EXTRACT_MAC_METADATA;

struct ReaderDeleter {
    void operator()(archive *reader) const { archive_read_free(reader); }
};
struct WriterDeleter {
    void operator()(archive *writer) const { archive_write_free(writer); }
};
using Reader = std::unique_ptr<archive, ReaderDeleter>;
using Writer = std::unique_ptr<archive, WriterDeleter>;

bool IsFifo(const std::string &path)
{
    struct stat info = {};
    return stat(path.c_str(), &info) == 0 && S_ISFIFO(info.st_mode);
}

// Accepts every format and compression that libarchive knows. Returns false when the source cannot be opened.
bool Open(archive *reader, const std::string &source)
{
    archive_read_support_filter_all(reader);
    archive_read_support_format_all(reader);
    return archive_read_open_filename(reader, source.c_str(), kBlockBytes) == ARCHIVE_OK;
}

// The text of the archive's last error, or `fallback`: libarchive sets no text for some damaged archives.
const char *ErrorText(archive *failed, const char *fallback = "unreadable entry")
{
    const char *text = archive_error_string(failed);
    return text != nullptr ? text : fallback;
}

// Returns a reader for Count() and List(), or null, with an ERROR line, when the source cannot be opened.
Reader OpenForReading(const std::string &source)
{
    Reader reader(archive_read_new());
    if (!reader) {
        LOGGER_ERROR(kComponent, "Allocate archive failed\n");
        return reader;
    }
    if (!Open(reader.get(), source)) {
        LOGGER_ERROR(kComponent, "archive_read_open_filename failed: '%s'\n", ErrorText(reader.get()));
        reader.reset();
    }
    return reader;
}
} // namespace

int Extractor::Count()
{
    if (target.empty() || source.empty()) {
        LOGGER_ERROR(kComponent, "Invalid argument\n");
        return -1;
    }
    const Reader reader = OpenForReading(source);
    if (!reader) {
        return -1;
    }
    int count = 0;
    archive_entry *entry = nullptr;
    while (archive_read_next_header(reader.get(), &entry) == ARCHIVE_OK) {
        ++count;
        archive_read_data_skip(reader.get());
    }
    return count;
}

int Extractor::List()
{
    if (target.empty() || source.empty()) {
        // Do not return: with an empty source, callers rely on a listing of standard input.
        LOGGER_ERROR(kComponent, "Invalid argument\n");
    }
    const Reader reader = OpenForReading(source);
    if (!reader) {
        return -1;
    }
    archive_entry *entry = nullptr;
    while (archive_read_next_header(reader.get(), &entry) == ARCHIVE_OK) {
        const char *name = archive_entry_pathname(entry);
        std::cout << (name != nullptr ? name : "") << std::endl;
        archive_read_data_skip(reader.get());
    }
    archive_read_close(reader.get());
    return 0;
}

int Extractor::Extract()
{
    if (source.empty() || target.empty()) {
        // The capital A is intended: log readers tell this line from that of Count() by it.
        LOGGER_ERROR(kComponent, "Invalid Argument\n");
        return -1;
    }
    LOGGER_DEBUG(kComponent, "decompress from '%s' to '%s'\n", source.c_str(), target.c_str());

    // Set the label before opening the archive, so that it is shown even if that fails.
    Notify_Adapter::GetInstance()->UpdateDialogText(StrTable::WithClientName(StrTable::CLIENT_INITIALIZING));

    // Counting would use up the data of a FIFO, and opening it again would wait for another writer.
    if (IsFifo(source)) {
        LOGGER_ERROR(kComponent, "Failed to read file '%s' ('%s')\n", source.c_str(), "a FIFO cannot be read twice");
        return -1;
    }
    const int total = Count();
    if (total < 1) {
        LOGGER_ERROR(kComponent, "Failed to calculate total file numbers, ret: %d\n", total);
        return -1;
    }
    const Reader reader(archive_read_new());
    const Writer writer(archive_write_disk_new());
    if (!reader || !writer) {
        LOGGER_ERROR(kComponent, "Allocate extractor failed\n");
        return -1;
    }
    archive_write_disk_set_options(writer.get(), kDiskOptions);
    if (!Open(reader.get(), source)) {
        LOGGER_ERROR(kComponent, "Failed to read file '%s' ('%s')\n", source.c_str(), ErrorText(reader.get()));
        return -1;
    }
    return ExtractEntries(reader.get(), writer.get(), total);
}

int Extractor::ExtractEntries(archive *reader, archive *writer, int total)
{
    for (int done = 1;; ++done) {
        archive_entry *entry = nullptr;
        const int result = archive_read_next_header(reader, &entry);
        if (result == ARCHIVE_EOF) {
            return 0;
        }
        if (result != ARCHIVE_OK) {
            LOGGER_ERROR(kComponent, "archive_read_next_header failed: '%s'\n", ErrorText(reader));
            return -1;
        }
        const char *name = archive_entry_pathname(entry);
        if (name == nullptr) {
            LOGGER_ERROR(kComponent, "archive_entry_pathname failed"); // log readers expect no line end
            return -1;
        }
        archive_entry_set_pathname(entry, (target + "/" + name).c_str());
        if (archive_read_extract2(reader, entry, writer) != ARCHIVE_OK) {
            // Reading may have failed; then the writer has no error text.
            LOGGER_ERROR(kComponent, "archive_read_extract2 failed: '%s'\n", ErrorText(writer, ErrorText(reader)));
            return -1;
        }
        Notify_Adapter::GetInstance()->UpdateProgress(total, done);
        if (archive_write_finish_entry(writer) != ARCHIVE_OK) {
            LOGGER_ERROR(kComponent, "archive_write_finish_entry failed: '%s'\n", ErrorText(writer));
            return -1;
        }
    }
}

int Extractor::copy_data(archive *reader, archive *writer)
{
    if (reader == nullptr || writer == nullptr) {
        LOGGER_ERROR(kComponent, "Invalid Argument\n");
        return -1;
    }
    for (;;) {
        const void *buffer = nullptr;
        size_t size = 0;
        la_int64_t offset = 0;
        const int result = archive_read_data_block(reader, &buffer, &size, &offset);
        if (result == ARCHIVE_EOF) {
            return 0;
        }
        if (result != ARCHIVE_OK) {
            LOGGER_ERROR(kComponent, "archive_read_data_block failed: '%s'\n", ErrorText(reader));
            return -1;
        }
        if (archive_write_data_block(writer, buffer, size, offset) != ARCHIVE_OK) {
            LOGGER_ERROR(kComponent, "archive_write_data_block failed: '%s'\n", ErrorText(writer));
            return -1;
        }
    }
}
