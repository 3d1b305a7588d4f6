#include "service/config/config.h"

#include <cerrno>

#include "tests/support.h"

using ConfigTest = ScratchTest;

TEST(ConfigParseTest, FollowsTheGrammar)
{
    const struct {
        const char *line;
        int result;
        const char *key;
        const char *value;
    } cases[] = {
#include "tests/config-cases.inc"
    };
    for (const auto &c : cases) {
        std::string line = c.line;
        std::string key;
        std::string value;
        EXPECT_EQ(Config().parse(line.data(), key, value), c.result) << c.line;
        EXPECT_EQ(key + "=" + value, std::string(c.key) + "=" + c.value) << c.line;
    }
}

TEST_F(ConfigTest, OneMalformedLineMakesTheWholeFileUnreadable)
{
    Config config;
    config.keep_quotes = true;
    Shell("printf 'pid=1\n\nuser=\"me\"\npid=2\n%8191spiece=5\n' >good; printf 'user=you\npid=42 43\nx=1\n' >bad");
    EXPECT_EQ(config.read(Path("good")), 0);
    EXPECT_EQ(config.entries, (std::map<std::string, std::string>{{"pid", "2"}, {"piece", "5"}, {"user", "\"me\""}}));
    EXPECT_TRUE(config["none"].empty() && config.entries.size() == 4) << "a key that is asked for is there";
    EXPECT_EQ(config.read(Path("bad")), -1);
    EXPECT_TRUE(config.entries.empty());
}

TEST_F(ConfigTest, ReadsRegularFilesOfAMebibyteAndWaitsForNothingElse)
{
    alarm(30); // a FIFO has no writer here
    Shell("mkfifo fifo; { echo pid=1; yes '#'; } | head -c 1048576 >most; { cat most; echo; } >more");
    Config config;
    EXPECT_EQ(config.read(Path("most")), 0);
    const auto openFiles = Tree("/proc/self/fdinfo").size();
    const std::pair<std::string, int> cases[] = {
#include "tests/unreadable-cases.inc"
    };
    for (const auto &[path, error] : cases) {
        errno = 0;
        EXPECT_EQ(config.read(path), -1) << path;
        EXPECT_EQ(errno, error) << path;
    }
    EXPECT_EQ(config.entries, (std::map<std::string, std::string>{{"pid", "1"}})) << "nothing changes";
    EXPECT_EQ(Tree("/proc/self/fdinfo").size(), openFiles);
}
