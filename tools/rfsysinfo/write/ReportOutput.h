// The two forms of the report: aligned text for people, one JSON document for scripts. The text shows
// each marker with its meaning where it could pass for data; the JSON keeps the library's answers as
// they are.
#ifndef RFSYSINFO_REPORTOUTPUT_H
#define RFSYSINFO_REPORTOUTPUT_H

#include "model/ReportModel.h"

#include <QByteArray>

// "this instrument", "device tree X" or "capture X".
QString sourceDescription(const ReportSource &source);

QByteArray textReport(const Report &report);
QByteArray jsonReport(const Report &report);

#endif // RFSYSINFO_REPORTOUTPUT_H
