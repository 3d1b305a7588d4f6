#ifndef BRIMLOCK_FCT_QT_DPI_INFO_H
#define BRIMLOCK_FCT_QT_DPI_INFO_H

#include <QString>

// The scale factor of the screen.
class DPIinfo
{
public:
    static DPIinfo *getInstance();

    // The scale factor of the primary screen: 1.0 at 96 dpi, and when there is no screen.
    double getDPI() const;

    // The style sheet with its lengths in "px" multiplied by the factor and rounded. A length above 0 becomes at least
    // 1 px. Text inside url(...) is not changed, up to the first ")", also when that is quoted.
    QString getScaledStyleSheet(const QString &sheet) const;

private:
    DPIinfo() = default;
};

#endif
