#ifndef BRIMLOCK_SERVICE_CONFIG_CONFIG_H
#define BRIMLOCK_SERVICE_CONFIG_CONFIG_H

#include <map>
#include <string>

// A file of "key=value" lines. A value may stand in single or double quotes; "#" starts a comment before a
// key or after a value. The grammar is strict: one malformed line makes the whole file unreadable.
class Config
{
public:
    // Adds the pairs of the file. A later line replaces an earlier one with the same key. Returns 0, or -1 when the
    // path is empty, cannot be opened or is no regular file of at most 1 MiB (nothing changes), or when a line
    // is malformed (no pair is left, not even one of an earlier read). Never waits for the other end of a FIFO.
    // Logs nothing.
    int read(const std::string &path);

    // The key's value; a missing key is added with an empty one.
    std::string &operator[](const std::string &key) { return entries[key]; }

    // Parses one line, writing into it. Returns 0 for a pair, 1 for a blank or comment line and for a key that is
    // directly followed by "#" or the end of the text, 2 for a malformed line. Sets `key` and `value` only with 0.
    int parse(char *line, std::string &key, std::string &value) const;

    // All pairs, in byte order of their keys.
    std::map<std::string, std::string> entries;

    // When set, a quoted value keeps its quotes.
    bool keep_quotes = false;
};

// The classes of bytes in a line.
bool is_key_char(unsigned char byte);
bool is_value_char(unsigned char byte); // bytes from 0x80 too, so UTF-8 passes
bool is_space(unsigned char byte);

#endif
