#include "service/config/config.h"
#include "tests/support.h"

using ConfigTest = ScratchTest;

TEST(ConfigParseTest, FollowsTheGrammar)
{
    struct {
        const char *line;
        int result;
        const char *key = "";
        const char *value = "";
    } const cases[] = {
        {"pid=4242\n", 0, "pid", "4242"},
        {"  pid = 4242   # the UI\n", 0, "pid", "4242"},
        {"pid=\"42 # 'x' 42\"\n", 0, "pid", "42 # 'x' 42"},
        {"pid='a\"b'", 0, "pid", "a\"b"},
        {"pid=''\n", 0, "pid", ""},
        {"=5\n", 0, "", "5"},
        {"a-b_c.D9=Zo\xc3\xab\n", 0, "a-b_c.D9", "Zo\xc3\xab"},
        {"key=a#b\n", 0, "key", "a#b"},
        {"\n", 1},
        {"", 1},
        {" # pid=1\n", 1},
        {"pid# note\n", 1},
        {"pid", 1},
        {"pid\n", 2},
        {"pid # note\n", 2},
        {"pid=\n", 2},
        {"pid=42 43\n", 2},
        {"p:d=1\n", 2},
        {"pid='42\n", 2},
        {"pid='4\t2'\n", 2},
        {"pid='4\x7f"
         "2'\n",
         2},
        {"pid='42'x\n", 2},
    };
    for (const auto &c : cases) {
        std::string line = c.line;
        std::string key;
        std::string value;
        EXPECT_EQ(Config().parse(line.data(), key, value), c.result) << c.line;
        EXPECT_EQ(key, c.key) << c.line;
        EXPECT_EQ(value, c.value) << c.line;
    }

    Config quoting;
    quoting.keep_quotes = true;
    std::string line = "k='v'";
    std::string key;
    std::string value;
    ASSERT_EQ(quoting.parse(line.data(), key, value), 0);
    EXPECT_EQ(value, "'v'");
}

TEST_F(ConfigTest, OneMalformedLineMakesTheWholeFileUnreadable)
{
    Config config;
    WriteFile(Path("good"), "# the client\npid=1\n\nuser=me\npid=2\n");
    ASSERT_EQ(config.read(Path("good")), 0);
    EXPECT_EQ(config["pid"], "2");
    EXPECT_EQ(config["missing"], "");

    EXPECT_EQ(config.read(""), -1);
    EXPECT_EQ(config.read(Path("none")), -1);
    EXPECT_EQ(config.entries().size(), 3u) << "a file that cannot be opened changes nothing";

    WriteFile(Path("bad"), "user=you\npid=42 43\n");
    EXPECT_EQ(config.read(Path("bad")), -1);
    EXPECT_TRUE(config.entries().empty());

    // A line of more than 8191 bytes is read in pieces, each a line of its own.
    WriteFile(Path("long"), "key=" + std::string(8187, 'v') + "=5\n");
    EXPECT_EQ(config.read(Path("long")), 0);
    EXPECT_EQ(config[""], "5");
}
