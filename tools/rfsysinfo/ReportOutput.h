// The two forms of the report: aligned text for people, one JSON document for scripts. The text shows
// each marker with its meaning where it could pass for data; the JSON keeps the library's answers as
// they are.
#ifndef RFSYSINFO_REPORTOUTPUT_H
#define RFSYSINFO_REPORTOUTPUT_H

#include "ReportModel.h"

#include <QByteArray>
#include <QJsonObject>

// The keys every JSON document of the tool starts with: the tool, its version and the source (with a
// replayed capture's origin).
QJsonObject jsonHeader(const Report &report);

// "this instrument", "device tree X" or "capture X".
QString sourceDescription(const ReportSource &source);

// The report's sections as the JSON document holds them, without the header keys.
QJsonObject reportSections(const Report &report);

// The header keys of the JSON document, which name the tool and the source rather than the device.
QStringList jsonHeaderKeys();

QByteArray textReport(const Report &report);
QByteArray jsonReport(const Report &report);

#endif // RFSYSINFO_REPORTOUTPUT_H
