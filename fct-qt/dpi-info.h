#ifndef BRIMLOCK_FCT_QT_DPI_INFO_H
#define BRIMLOCK_FCT_QT_DPI_INFO_H

#include <QString>

// How much larger than at 96 dots per inch things are to be drawn.
class DPIinfo
{
public:
    static DPIinfo *getInstance();

    // The primary screen's factor: 1.0 at 96 dpi, and where there is no screen.
    double getDPI() const;

    // The style sheet with its lengths in "px" multiplied by the factor and rounded. No length becomes
    // invisible: what is more than 0 stays at least 1 px. Text inside url(...) is left alone.
    QString getScaledStyleSheet(const QString &sheet) const;

private:
    DPIinfo() = default;
};

#endif
