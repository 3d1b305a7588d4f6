#include "service/config/config.h"

#include <cerrno>

#include "tests/support.h"

using ConfigTest = ScratchTest;
using Entries = std::map<std::string, std::string>;

TEST(ConfigParseTest, FollowsTheGrammar)
{
    const std::tuple<std::string, int, std::string, std::string> cases[] = {
#include "tests/config-cases.inc"
    };
    for (auto [line, result, key, value] : cases) {
        std::string foundKey;
        std::string foundValue;
        EXPECT_EQ(Config().parse(std::string(line).data(), foundKey, foundValue), result) << line;
        EXPECT_EQ(foundKey, key) << line;
        EXPECT_EQ(foundValue, value) << line;
    }
}

TEST_F(ConfigTest, ReadsRegularFilesOfUpToOneMebibyte)
{
    alarm(30); // opening a FIFO could block
    Shell("mkfifo fifo; printf 'pid=1\n\nuser=\"me\"\r\npid=2\n' >good;"
          "{ printf k=%8189s | tr ' ' v; echo piece=5; } >>good;"
          "printf 'user=you\npid=42 43\nx=1\n' >bad;"
          "{ cat good; yes '#' || true; } | head -c 1048576 >most; { cat most; echo; } >more");
    const auto openFiles = Tree("/proc/self/fdinfo").size();
    Config config;
    config.keep_quotes = true;
    EXPECT_EQ(config.read(Path("most")), 0);
    const std::pair<std::string, int> cases[] = {
#include "tests/unreadable-cases.inc"
    };
    for (const auto &[path, error] : cases) {
        errno = 0;
        EXPECT_EQ(config.read(path), -1) << path;
        EXPECT_EQ(errno, error) << path;
    }
    EXPECT_EQ(config["k"].size(), 8189) << "all of a line's first piece";
    config.entries.erase("k");
    EXPECT_EQ(config["none"], "") << "asking for a key adds it";
    const Entries read = {{"none", ""}, {"pid", "2"}, {"piece", "5"}, {"user", "\"me\""}};
    EXPECT_EQ(config.entries, read);
    EXPECT_EQ(config.read(Path("bad")), -1);
    EXPECT_EQ(config.entries, Entries()) << "one malformed line spoils the file";
    EXPECT_EQ(Tree("/proc/self/fdinfo").size(), openFiles);
}
