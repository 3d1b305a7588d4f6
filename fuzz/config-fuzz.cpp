// The key=value reader: what it reads is made of the right bytes, and reads the same when it is written out again.

#include <algorithm>

#include "fuzz/scratch.h"
#include "service/config/config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    static const std::string path = Scratch() / "input";
    WriteInput(path, bytes, size);
    Config config;
    config["earlier"] = "1";
    if (config.read(path) != 0) {
        Require(config.entries.empty());
        return 0;
    }

    Require(config.entries.count("earlier") == 1);
    for (const auto &[key, value] : config.entries) {
        Require(std::all_of(key.begin(), key.end(), is_key_char));
        Require(std::all_of(value.begin(), value.end(), is_value_char));
        // No value needs both quotes and a blank.
        const auto has = [&value = value](char byte) { return value.find(byte) != std::string::npos; };
        const std::string quote = !has('"') ? "\"" : !has('\'') ? "'" : "";
        std::string line = key + " = " + quote + value + quote + " # note\n";
        std::string unclosed = key + " = " + quote + value + "\n";
        std::string readKey;
        std::string readValue;
        Require(config.parse(line.data(), readKey, readValue) == 0 && readKey == key && readValue == value);
        Require(quote.empty() || config.parse(unclosed.data(), readKey, readValue) == 2);
    }
    return 0;
}
