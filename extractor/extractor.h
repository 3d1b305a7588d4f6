#ifndef BRIMLOCK_EXTRACTOR_EXTRACTOR_H
#define BRIMLOCK_EXTRACTOR_EXTRACTOR_H

#include <string>

struct archive;

// Unpacks an archive of any format and compression that libarchive reads. Each call opens and closes the
// archive for itself; an object is for one thread at a time. Every failure is -1 and an ERROR line where it
// is found.
class Extractor
{
public:
    // A file, or for Count() and List() anything that can be read once from end to end: a FIFO, whose writer
    // they wait for, or "/dev/stdin".
    void SetSource(const std::string &path) { source = path; }

    // The folder to unpack into, without a trailing "/".
    void SetTarget(const std::string &folder) { target = folder; }

    // The number of entries, or -1 when the source cannot be opened or source or target is not set. Counting
    // ends, without a failure, at the first entry that cannot be read.
    int Count();

    // Writes the entries' names to standard output, one a line. Returns 0, or -1 when the source cannot be
    // opened. Without source or target it logs an error and goes on; without a source it reads standard
    // input.
    int List();

    // Unpacks the source below the target (what the archive's links can do is told in docs/behaviour.md),
    // replacing what is there, and reports label and progress through Notify_Adapter. Reads the source twice,
    // so a FIFO is refused at once. Returns 0, or -1 at the first entry that cannot be read or written whole;
    // what was written before it stays, and the caller removes it. Owners, times and attributes are not
    // restored.
    int Extract();

    // Copies the data of the reader's current entry to the writer's. Both stay the caller's. Returns 0 or -1.
    int copy_data(archive *reader, archive *writer);

private:
    int ExtractEntries(archive *reader, archive *writer, int total);

    std::string target;
    std::string source;
};

#endif
