#include "launcher/strings/str-table.h"

#include <QCoreApplication>
#include <QDir>
#include <QRegularExpression>
#include <QResource>
#include <QTranslator>
#include <QXmlStreamReader>

#include "tests/support.h"

namespace
{
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
    std::set<QString> rows(std::begin(StrTable::stab), std::end(StrTable::stab));
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
        for (const char *row : StrTable::stab) {
            const QString text = translator.translate("global", row);
            EXPECT_TRUE(text.isEmpty() || Markers(text) == Markers(row)) << code << ": " << row;
        }

        QFile sources(BRIMLOCK_TESTS "/../resources/translations/" + file.baseName() + ".ts");
        ASSERT_TRUE(sources.open(QIODevice::ReadOnly)) << code;
        QString context;
        for (QXmlStreamReader xml(&sources); !xml.atEnd(); xml.readNext()) {
            if (xml.isStartElement() && xml.name() == "name") {
                context = xml.readElementText();
            } else if (xml.isStartElement() && xml.name() == "source" && context == "global") {
                const QString source = xml.readElementText();
                EXPECT_EQ(rows.count(source), 1U) << code << " translates what no row says: " << source.toStdString();
            }
        }
    }
    EXPECT_TRUE(shown.empty()) << "no " << shown.begin()->first;
}
