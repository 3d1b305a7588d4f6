#include "launcher/language.h"

#include <memory>

#include <QFont>
#include <QTranslator>

#include "fct-qt/qt-single-application.h"
#include "fct-qt/veltrano-locale.h"
#include "launcher/strings/str-table.h"

namespace
{
constexpr int kFontPoints = 9;
} // namespace

void initializeLanguage(QtSingleApplication &)
{
    const QString language = VeltranoLocale::getInstance()->getDefaultLanguage();
    auto translator = std::make_unique<QTranslator>();
    if (translator->load(":/" + language + ".qm", QString(), QString(), QString()) && !translator->isEmpty()) {
        QCoreApplication::installTranslator(translator.release()); // in use until the process ends
    }
    StrTable::InitStrTable();

    const QString family =
        language == QLatin1String("tha") ? QStringLiteral("Microsoft Sans Serif") : QStringLiteral("Arial");
    QApplication::setFont(QFont(family, kFontPoints, -1, false));
}
