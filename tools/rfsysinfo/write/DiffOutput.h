// The differences between two reports for people (a line a difference, then a summary) and for
// scripts (one JSON document).
#ifndef RFSYSINFO_DIFFOUTPUT_H
#define RFSYSINFO_DIFFOUTPUT_H

#include "judge/ReportDiff.h"

#include <QByteArray>

QByteArray diffText(const DiffSide &before, const DiffSide &after, const QVector<Difference> &differences);
QByteArray diffJson(const DiffSide &before, const DiffSide &after, const QVector<Difference> &differences);

#endif // RFSYSINFO_DIFFOUTPUT_H
