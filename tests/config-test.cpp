#include "service/config/config.h"

#include <cerrno>

#include "tests/support.h"

using ConfigTest = ScratchTest;

TEST(ConfigParseTest, FollowsTheGrammar)
{
    const std::tuple<std::string, int, std::string, std::string> cases[] = {
#include "tests/config-cases.inc"
    };
    for (auto [line, result, key, value] : cases) {
        const std::string expected = std::to_string(result) + " " + key + "=" + value;
        result = Config().parse(line.data(), key = "", value = "");
        EXPECT_EQ(std::to_string(result) + " " + key + "=" + value, expected) << line;
    }
}

TEST_F(ConfigTest, ReadsRegularFilesOfAMebibyteAndWaitsForNothingElse)
{
    alarm(30); // a FIFO has no writer here
    Shell(
        "mkfifo fifo; printf 'pid=1\n\nuser=\"me\"\npid=2\n%8191spiece=5\n' >good; printf 'user=you\npid=42 43\nx=1\n' "
        ">bad; { cat good; yes '#'; } | head -c 1048576 >most; { cat most; echo; } >more");
    const auto openFiles = Tree("/proc/self/fdinfo").size();
    Config config;
    config.keep_quotes = true;
    EXPECT_EQ(config.read(Path("most")), 0);
    const std::pair<std::string, int> cases[] = {
#include "tests/unreadable-cases.inc"
    };
    for (const auto &[path, error] : cases) {
        errno = 0;
        EXPECT_TRUE(config.read(path) == -1 && errno == error) << path << ": " << strerror(errno);
    }
    EXPECT_EQ(config.entries, (std::map<std::string, std::string>{{"pid", "2"}, {"piece", "5"}, {"user", "\"me\""}}));
    EXPECT_TRUE(config["none"].empty() && config.entries.size() == 4) << "a key that is asked for is there";
    EXPECT_TRUE(config.read(Path("bad")) == -1 && config.entries.empty()) << "for one malformed line";
    EXPECT_EQ(Tree("/proc/self/fdinfo").size(), openFiles);
}
