#include "launcher/strings/str-table.h"

#include <QDir>
#include <QRegularExpression>
#include <QResource>
#include <QTranslator>

#include "tests/support.h"

namespace
{
const std::set<std::string> kPlain = {"chs", "cht", "jpn", "krn"};
const std::set<std::string> kCompressed = {"csy", "dan", "enu", "fre", "ger", "hun", "ita", "nld", "nor",
                                           "plk", "ptb", "ptg", "rus", "spn", "sve", "tha", "trk"};

// The numbers of a text's markers, in order; 0 for a percent sign that is no marker.
std::multiset<int> Markers(const QString &text)
{
    std::multiset<int> markers;
    for (auto it = QRegularExpression("%(\\d*)").globalMatch(text); it.hasNext();) {
        markers.insert(it.next().captured(1).toInt());
    }
    return markers;
}
} // namespace

TEST(StringsTest, TheTableIsWhole)
{
    StrTable::InitStrTable();
    int withArgument = 0;
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id) {
        const QString key = StrTable::ktab[id];
        const QString text = StrTable::stab[id];
        EXPECT_EQ(StrTable::LookupStrID(key.toUpper()), id) << "a key that comes twice: " << key.toStdString();
        EXPECT_FALSE(text.isEmpty() || text == key || text.contains('\n') || text.contains('\t')) << key.toStdString();
        const std::multiset<int> all = Markers(text);
        const std::set<int> markers(all.begin(), all.end());
        withArgument += static_cast<int>(markers.count(1));
        EXPECT_TRUE(markers.empty() || (*markers.begin() == 1 && *markers.rbegin() <= 4 &&
                                        *markers.rbegin() == static_cast<int>(markers.size())))
            << "a gap in the markers of " << key.toStdString();
    }
    EXPECT_EQ(withArgument, 124);
    EXPECT_EQ(StrTable::LookupStrID("no_such_key"), -1);
    EXPECT_EQ(StrTable::LookupStrID("tray_delete"), 0);
    EXPECT_EQ(StrTable::LookupStrID("notification_shared_label_owner_transfer_with_filename_plural"), 1180);
    EXPECT_EQ(StrTable::LoadStr(516) + StrTable::LoadStr(531) + StrTable::LoadStr(847),
              "%1 is ready.%1 is initializing...Brimlock Client");
    EXPECT_TRUE(StrTable::LoadStr(447).contains('\n') && !StrTable::LoadStr(447).contains('\\'));
}

TEST(StringsTest, TheBundleHoldsEveryLanguageWithEveryTextAndMarker)
{
    StrTable::InitStrTable();
    EXPECT_EQ(qInitResources_texts(), 1) << "a second registration does no harm";
    size_t files = 0;
    for (const QFileInfo &file : QDir(":/").entryInfoList(QDir::Files)) {
        ++files;
        const std::string code = file.baseName().toStdString();
        const bool isPlain = QResource(file.filePath()).compressionAlgorithm() == QResource::NoCompression;
        EXPECT_TRUE((isPlain ? kPlain : kCompressed).count(code) == 1 && file.suffix() == "qm") << code;
        QTranslator translator;
        ASSERT_TRUE(translator.load(file.filePath())) << code;
        for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id) {
            const QString text = translator.translate("global", StrTable::stab[id]);
            const bool isShown = id == 516 || id == 531 || id == 847;
            EXPECT_TRUE(!text.isEmpty() || !isShown) << code << " lacks row " << id;
            EXPECT_TRUE(text.isEmpty() || Markers(text) == Markers(StrTable::stab[id])) << code << " row " << id;
            EXPECT_TRUE(!isShown || code == "enu" || text != StrTable::stab[id]) << code << ": English row " << id;
        }
        EXPECT_TRUE(translator.translate("global", StrTable::stab[847]).contains("Brimlock")) << code;
    }
    EXPECT_EQ(files, kPlain.size() + kCompressed.size());
}
