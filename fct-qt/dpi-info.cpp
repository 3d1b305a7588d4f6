#include "fct-qt/dpi-info.h"

#include <QGuiApplication>
#include <QRegularExpression>
#include <QScreen>

namespace
{
constexpr double kDotsPerInchAtScaleOne = 96.0;

int ScaledLength(double pixels, double factor)
{
    const int scaled = qRound(pixels * factor);
    return pixels > 0 ? qMax(scaled, 1) : scaled;
}
} // namespace

DPIinfo *DPIinfo::getInstance()
{
    static DPIinfo instance;
    return &instance;
}

double DPIinfo::getDPI() const
{
    const QScreen *screen = QGuiApplication::primaryScreen();
    return screen != nullptr ? screen->logicalDotsPerInch() / kDotsPerInchAtScaleOne : 1.0;
}

QString DPIinfo::getScaledStyleSheet(const QString &sheet) const
{
    static const QRegularExpression length(
        QStringLiteral(R"(url\([^)]*\)(*SKIP)(*FAIL)|(?<![\w.#])(\d+(?:\.\d+)?|\.\d+)px\b)"));

    const double factor = getDPI();
    QString scaled;
    int copied = 0;
    for (auto it = length.globalMatch(sheet); it.hasNext();) {
        const QRegularExpressionMatch match = it.next();
        scaled += sheet.mid(copied, match.capturedStart() - copied);
        scaled += QString::number(ScaledLength(match.captured(1).toDouble(), factor)) + QStringLiteral("px");
        copied = match.capturedEnd();
    }
    return scaled + sheet.mid(copied);
}
