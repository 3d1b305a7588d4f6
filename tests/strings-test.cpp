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
    EXPECT_EQ(hash.result().toHex().toStdString(), "5c2bdc3952b3688361fe3b73296243e4")
        << "A key or a text has changed, see 'Add or change a text' in CONTRIBUTING.md. If that is "
           "meant, put the first checksum here.";
    EXPECT_EQ(StrTable::LookupStrID("no_such_key"), -1);
    StrTable::stab[1] = R"(%1\n\t\n\t\N\)"; // no row has a tab so far
    EXPECT_EQ(StrTable::LoadStr(1).toStdString(), "%1\n\t\n\t\\N\\");
}

TEST(StringsTest, TheBundleHoldsEveryLanguageWithItsTextsAndMarkers)
{
    const std::string plain = "chs cht jpn krn"; // the others are compressed
    int argc = 0;
    const QCoreApplication app(argc, nullptr);
    StrTable::InitStrTable();
    const std::set<QString> rows(std::begin(StrTable::stab), std::end(StrTable::stab));
    EXPECT_EQ(qInitResources_texts(), 1) << "a second registration does no harm";
    const QFileInfoList files = QDir(":/").entryInfoList(QDir::Files);
    EXPECT_EQ(files.size(), 21);
    for (const QFileInfo &file : files) {
        const std::string code = file.baseName().toStdString();
        SCOPED_TRACE(code);
        QTranslator translator;
        ASSERT_TRUE(translator.load(file.filePath()));
        const auto compression = QResource(file.filePath()).compressionAlgorithm();
        EXPECT_EQ(compression == QResource::NoCompression, CountOf(plain, code) == 1);
        int translated = 0;
        for (const QString &row : rows) {
            const QString text = translator.translate("global", row.toUtf8());
            translated += text.isEmpty() ? 0 : 1;
            for (const char *marker : {"%1", "%2", "%3", "%4"}) {
                EXPECT_TRUE(text.isEmpty() || text.count(marker) == row.count(marker))
                    << row.toStdString();
            }
        }
        for (const int shown : {516, 531, 847}) {
            EXPECT_NE(translator.translate("global", StrTable::stab[shown]), "") << shown;
        }
        const std::string source =
            ReadFile(BRIMLOCK_TESTS "/../resources/translations/" + code + ".ts");
        EXPECT_EQ(CountOf(source, " language=\"" + translator.language().toStdString()), 1);
        EXPECT_EQ(CountOf(source, "<source>"), translated + 2)
            << "the desktop's entry has two, all others are rows of the table";
    }
}
