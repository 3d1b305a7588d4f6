#include "launcher/strings/str-table.h"

#include <algorithm>

#include <QCoreApplication>
#include <QDir>
#include <QRegularExpression>
#include <QResource>
#include <QTranslator>

#include "tests/support.h"

namespace
{
// The numbers of a text's markers, sorted; 0 for a percent sign that is no marker.
std::string Markers(const QString &text)
{
    std::string markers;
    for (auto it = QRegularExpression("%(\\d*)").globalMatch(text); it.hasNext();) {
        markers += std::to_string(it.next().captured(1).toInt());
    }
    std::sort(markers.begin(), markers.end());
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
        const std::string markers = Markers(text);
        withArgument += markers.empty() ? 0 : 1;
        EXPECT_TRUE(std::regex_match(markers, std::regex("(1+(2+(3+(4+)?)?)?)?"))) << "a gap: " << key.toStdString();
    }
    EXPECT_EQ(withArgument, 124);
    EXPECT_EQ(StrTable::LookupStrID("no_such_key"), -1);
    EXPECT_EQ(StrTable::LookupStrID("tray_delete"), 0);
    EXPECT_EQ(StrTable::LookupStrID("notification_shared_label_owner_transfer_with_filename_plural"), 1180);
    EXPECT_EQ(StrTable::LoadStr(516) + StrTable::LoadStr(531) + StrTable::LoadStr(847),
              "%1 is ready.%1 is initializing...Brimlock Client");
    StrTable::stab[1] = R"(%1\n\t\n\t\N\)"; // no row has a tab so far
    EXPECT_EQ(StrTable::LoadStr(1), "%1\n\t\n\t\\N\\");
}

TEST(StringsTest, TheBundleHoldsEveryLanguageWithItsTextsAndMarkers)
{
    std::map<std::string, std::array<std::string, 4>> shown = {
#include "tests/text-cases.inc"
    };
    int argc = 0;
    const QCoreApplication app(argc, nullptr);
    StrTable::InitStrTable();
    const std::set<QString> rows(std::begin(StrTable::stab), std::end(StrTable::stab));
    EXPECT_EQ(qInitResources_texts(), 1) << "a second registration does no harm";
    for (const QFileInfo &file : QDir(":/").entryInfoList(QDir::Files)) {
        const std::string code = file.baseName().toStdString();
        QTranslator translator;
        ASSERT_TRUE(translator.load(file.filePath())) << code;
        QCoreApplication::installTranslator(&translator);
        const bool isPlain = QResource(file.filePath()).compressionAlgorithm() == QResource::NoCompression;
        const std::array<std::string, 4> found = {
            isPlain ? "plain" : "zlib", StrTable::WithClientName(516).toStdString(),
            StrTable::WithClientName(531).toStdString(), StrTable::LoadStr(847).toStdString()};
        EXPECT_EQ(found, shown[code]) << code;
        shown.erase(code);
        int translated = 0;
        for (const QString &row : rows) {
            const QString text = translator.translate("global", row.toUtf8());
            translated += text.isEmpty() ? 0 : 1;
            EXPECT_TRUE(text.isEmpty() || Markers(text) == Markers(row)) << code << ": " << row.toStdString();
        }
        const std::string sources = ReadFile(BRIMLOCK_TESTS "/../resources/translations/" + code + ".ts");
        EXPECT_EQ(CountOf(sources, "<source>"), translated + 1)
            << code << ": one is the desktop's, all others are rows";
    }
    EXPECT_TRUE(shown.empty()) << "no " << shown.begin()->first;
}
