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

// One name=value line a value, as update clients' inventories take them: rfsi_SECTION_KEY, the parts of
// a key joined by '_'; the names and versions of a section's images each one name, repeated in index
// order. A value is shown as the text report's lines are, so that it stays on its line.
QByteArray nameValueReport(const Report &report);

#endif // RFSYSINFO_REPORTOUTPUT_H
