// What changed between two reports of an instrument: before and after a repair, or a customer's unit
// against a good one (each side read by read/ReportInput). The reports are compared key by key,
// whatever names the tool or the source left out.
#ifndef RFSYSINFO_REPORTDIFF_H
#define RFSYSINFO_REPORTDIFF_H

#include "read/ReportInput.h"

#include <QJsonValue>
#include <QStringList>
#include <QVector>

// --sanitize for both sides at once: a serial number of either side is withheld on both, and so are
// the sides' names.
void sanitizeSides(DiffSide &before, DiffSide &after);

struct Difference
{
    QString section, key;     // "fpga", "banks.FPGA_BANK_2_VER"; images as "images[2].name"
    QJsonValue before, after; // undefined: absent on that side
};

// Key by key, in report order (numbers in keys in numeric order), `sections` only when not empty.
QVector<Difference> reportDifferences(const DiffSide &before, const DiffSide &after, const QStringList &sections);

#endif // RFSYSINFO_REPORTDIFF_H
