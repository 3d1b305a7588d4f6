#include "launcher/strings/str-table.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QResource>
#include <QTranslator>

#include "tests/support.h"

TEST(StringsTest, TheTableNeverChanges)
{
    StrTable::InitStrTable();
    QCryptographicHash hash(QCryptographicHash::Md5);
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id) {
        hash.addData(QByteArray(StrTable::ktab[id]) + '\n' + StrTable::stab[id] + '\n');
        EXPECT_EQ(StrTable::LookupStrID(QString(StrTable::ktab[id]).toUpper()), id);
    }
    EXPECT_EQ(hash.result().toHex().toStdString(), "5c2bdc3952b3688361fe3b73296243e4");
    EXPECT_EQ(StrTable::LookupStrID("no_such_key"), -1);
    StrTable::stab[1] = R"(%1\n\t\n\t\N\)"; // no row has a tab so far
    EXPECT_EQ(StrTable::LoadStr(1).toStdString(), "%1\n\t\n\t\\N\\");
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
        const auto compression = QResource(file.filePath()).compressionAlgorithm();
        const std::array<std::string, 4> found = {
            compression == QResource::NoCompression ? "plain" : "zlib",
            StrTable::WithClientName(516).toStdString(),
            StrTable::WithClientName(531).toStdString(), StrTable::LoadStr(847).toStdString()};
        EXPECT_EQ(found, shown[code]) << code;
        shown.erase(code);
        int translated = 0;
        for (const QString &row : rows) {
            const QString text = translator.translate("global", row.toUtf8());
            translated += text.isEmpty() ? 0 : 1;
            for (const char *marker : {"%1", "%2", "%3", "%4"}) {
                EXPECT_TRUE(text.isEmpty() || text.count(marker) == row.count(marker))
                    << code << ": " << row.toStdString();
            }
        }
        const std::string path = BRIMLOCK_TESTS "/../resources/translations/" + code + ".ts";
        EXPECT_EQ(CountOf(ReadFile(path), "<source>"), translated + 2)
            << code << ": the desktop's entry has two, all others are rows of the table";
    }
    EXPECT_EQ(shown.size(), 0) << shown.begin()->first << " is missing";
}
