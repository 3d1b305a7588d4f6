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
    WriteFile(Path("good"), "# the client\npid=1\n\nuser=me\npid=2\n" + std::string(8191, ' ') + "piece=5\n");
    ASSERT_EQ(config.read(Path("good")), 0);
    EXPECT_EQ(config["pid"], "2");
    EXPECT_EQ(config["piece"], "5");
    EXPECT_EQ(config.read(Path("none")), -1);
    EXPECT_EQ(config.entries().size(), 3u) << "a file that cannot be opened changes nothing";

    WriteFile(Path("bad"), "user=you\npid=42 43\n");
    EXPECT_EQ(config.read(Path("bad")), -1);
    EXPECT_TRUE(config.entries().empty());
}
