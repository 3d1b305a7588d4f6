#include "launcher/strings/str-table.h"

#include <QCoreApplication>

namespace
{
struct Row {
    const char *key;
    const char *text;
};

constexpr Row kRows[] = {
#include "launcher/strings/str-table-rows.inc"
};
static_assert(sizeof kRows / sizeof kRows[0] == StrTable::NUM_STRING_IDS, "a row is missing or too many");
} // namespace

const char *StrTable::stab[NUM_STRING_IDS] = {};
const char *StrTable::ktab[NUM_STRING_IDS] = {};

void StrTable::InitStrTable()
{
    for (int id = 0; id < NUM_STRING_IDS; ++id) {
        stab[id] = kRows[id].text;
        ktab[id] = kRows[id].key;
    }
}

QString StrTable::LoadStr(int id)
{
    QString text = QCoreApplication::translate("global", stab[id]);
    text.replace(QStringLiteral("\\n"), QStringLiteral("\n"));
    text.replace(QStringLiteral("\\t"), QStringLiteral("\t"));
    return text;
}

QString StrTable::WithClientName(int id)
{
    return LoadStr(id).arg(LoadStr(CLIENT_NAME), 0, QLatin1Char(' '));
}

int StrTable::LookupStrID(QString key)
{
    const QByteArray wanted = key.toLocal8Bit();
    for (int id = 0; id < NUM_STRING_IDS; ++id) {
        if (qstricmp(wanted.constData(), ktab[id]) == 0) {
            return id;
        }
    }
    return -1;
}
