#include "launcher/strings/str-table.h"

#include <set>

#include <QDir>
#include <QRegularExpression>
#include <QResource>
#include <QTranslator>

#include "tests/support.h"

namespace
{
const char *const kPlain[] = {"chs", "cht", "jpn", "krn"};
const char *const kCompressed[] = {"csy", "dan", "enu", "fre", "ger", "hun", "ita", "nld", "nor",
                                   "plk", "ptb", "ptg", "rus", "spn", "sve", "tha", "trk"};

// The markers of a text, each once.
std::set<int> Markers(const QString &text)
{
    std::set<int> markers;
    for (auto it = QRegularExpression("%(\\d*)").globalMatch(text); it.hasNext();) {
        markers.insert(it.next().captured(1).toInt());
    }
    return markers;
}

class StringsTest : public testing::Test
{
protected:
    StringsTest() { StrTable::InitStrTable(); }

    // What a language has for each row; null where it has nothing.
    void ForEachTranslation(const std::function<void(const char *, int, const QString &)> &look)
    {
        std::vector<const char *> codes(std::begin(kPlain), std::end(kPlain));
        codes.insert(codes.end(), std::begin(kCompressed), std::end(kCompressed));
        for (const char *code : codes) {
            QTranslator translator;
            ASSERT_TRUE(translator.load(":/" + QString(code) + ".qm")) << code;
            for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id) {
                look(code, id, translator.translate("global", StrTable::stab[id]));
            }
        }
    }
};
} // namespace

TEST_F(StringsTest, TheTableIsWhole)
{
    std::set<std::string> keys;
    int withArgument = 0;
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id) {
        const std::string key = StrTable::ktab[id];
        const QString text = QString::fromUtf8(StrTable::stab[id]);
        keys.insert(key);
        EXPECT_EQ(StrTable::LookupStrID(QString::fromStdString(key).toUpper()), id);
        EXPECT_FALSE(text.isEmpty()) << key;
        EXPECT_NE(text.toStdString(), key);
        EXPECT_FALSE(text.contains('\n') || text.contains('\t')) << key;

        const std::set<int> markers = Markers(text);
        withArgument += markers.count(1) != 0 ? 1 : 0;
        const int highest = markers.empty() ? 0 : *markers.rbegin();
        EXPECT_LE(highest, 4) << key;
        EXPECT_EQ(static_cast<size_t>(highest), markers.size()) << "a gap in the markers of " << key;
    }
    EXPECT_EQ(keys.size(), static_cast<size_t>(StrTable::NUM_STRING_IDS));
    EXPECT_EQ(withArgument, 124);

    const std::pair<const char *, int> ids[] = {
        {"tray_delete", 0},
        {"desc_larkspire_env_preparation_done_drive", 516},
        {"APP_NAME_DRIVE_CLIENT", 847},
        {"notification_shared_label_owner_transfer_with_filename_plural", 1180},
        {"no_such_key", -1}};
    for (const auto &[key, id] : ids) {
        EXPECT_EQ(StrTable::LookupStrID(key), id);
    }
    EXPECT_EQ(StrTable::LoadStr(516), "%1 is ready.");
    EXPECT_EQ(StrTable::LoadStr(531), "%1 is initializing...");
    EXPECT_EQ(StrTable::LoadStr(847), "Brimlock Client");
    EXPECT_TRUE(StrTable::LoadStr(447).contains('\n')) << "an escape in a text becomes a line break";
    EXPECT_FALSE(StrTable::LoadStr(447).contains('\\'));
}

TEST_F(StringsTest, NoTranslationLosesOrInventsAMarker)
{
    ForEachTranslation([](const char *code, int id, const QString &text) {
        const bool isShown = id == StrTable::CLIENT_READY || id == StrTable::CLIENT_INITIALIZING ||
                             id == StrTable::CLIENT_NAME;
        if (text.isEmpty()) {
            EXPECT_FALSE(isShown) << code << " lacks row " << id;
            return;
        }
        EXPECT_EQ(Markers(text), Markers(StrTable::stab[id])) << code << " row " << id;
        EXPECT_EQ(text.count("%1"), QString(StrTable::stab[id]).count("%1")) << code << " row " << id;
        if (id == StrTable::CLIENT_NAME) {
            EXPECT_TRUE(text.contains("Brimlock")) << code;
        } else if (isShown && code != std::string("enu")) {
            EXPECT_NE(text, StrTable::stab[id]) << code << " is still English";
        }
    });
}

TEST_F(StringsTest, TheBundleHoldsEveryLanguageAsItIsToBeStored)
{
    std::set<std::string> expected;
    const auto check = [&expected](const char *code, QResource::Compression compression) {
        const QResource file(":/" + QString(code) + ".qm");
        ASSERT_TRUE(file.isValid()) << code;
        EXPECT_EQ(file.compressionAlgorithm(), compression) << code;
        expected.insert(std::string(code) + ".qm");
    };
    for (const char *code : kPlain) {
        check(code, QResource::NoCompression);
    }
    for (const char *code : kCompressed) {
        check(code, QResource::ZlibCompression);
    }
    std::set<std::string> found;
    for (const QString &name : QDir(":/").entryList(QDir::Files)) {
        found.insert(name.toStdString());
    }
    EXPECT_EQ(found, expected);
    EXPECT_EQ(qInitResources_texts(), 1) << "registering the bundle again does no harm";
}
