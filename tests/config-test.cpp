#include "service/config/config.h"
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
    Shell("printf 'pid=1\n\nuser=me\npid=2\n%8191spiece=5\n' >good; printf 'user=you\npid=42 43\n' >bad");
    EXPECT_EQ(config.read(Path("good")), 0);
    EXPECT_EQ(config.read(Path("none")), -1) << "which changes nothing";
    EXPECT_EQ(config.entries, (std::map<std::string, std::string>{{"pid", "2"}, {"piece", "5"}, {"user", "me"}}));
    EXPECT_EQ(config.read(Path("bad")), -1);
    EXPECT_TRUE(config.entries.empty());
}
