#ifndef BRIMLOCK_EXTRACTOR_EXTRACTOR_H
#define BRIMLOCK_EXTRACTOR_EXTRACTOR_H

#include <string>

struct archive;

// Counts, lists and unpacks an archive of any format and compression that libarchive reads. Each call opens and closes
// the archive itself. An object is used by one thread at a time. A failure is reported by -1 and an ERROR
// line; by two lines when Extract() cannot open the archive.
class Extractor
{
public:
    // The archive: a file. Count() and List() also read "/dev/stdin" or a FIFO, and wait for its writer.
    void SetSource(const std::string &path) { source = path; }

    // The folder to unpack into, without a trailing "/".
    void SetTarget(const std::string &folder) { target = folder; }

    // Returns the number of entries. It stops counting, without a failure, at the first entry that cannot be read.
    // Returns -1 when the source cannot be opened, or when source or target is empty.
    int Count();

    // Writes the path of each entry to standard output, one a line. It stops, without a failure, at the first entry
    // that cannot be read. Returns 0, or -1 when the source cannot be opened. When source or target is empty it logs
    // an error and goes on; with an empty source it reads standard input.
    int List();

    // Unpacks the source below the target and replaces files that exist there. docs/behaviour.md says what links in the
    // archive can do. Reports label and progress through Notify_Adapter. Reads the source twice and
    // therefore refuses a FIFO. Owners, times and attributes are not restored. Returns 0, or -1 at the first entry
    // that cannot be read or written completely; the files written before stay, and the caller removes them.
    int Extract();

    // Copies the data of the reader's current entry to the writer's. The caller keeps both. Returns 0 or -1; after -1
    // a part of the data may have been written.
    int copy_data(archive *reader, archive *writer);

private:
    int ExtractEntries(archive *reader, archive *writer, int total);

    std::string target;
    std::string source;
};

#endif
