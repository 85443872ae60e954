// The report's JSON form, the one the tool writes with --json and reads back from a saved report: its
// header keys, which name the tool and the source, and its sections, which hold the library's answers.
#ifndef RFSYSINFO_REPORTJSON_H
#define RFSYSINFO_REPORTJSON_H

#include "model/ReportModel.h"

#include <QJsonObject>
#include <QJsonValue>
#include <QMap>
#include <QStringList>

// The keys every JSON document of the tool starts with: the tool, its version and the source (with a
// replayed capture's origin).
QJsonObject jsonHeader(const Report &report);

// The report's sections as the JSON document holds them, without the header keys.
QJsonObject reportSections(const Report &report);

// The header keys of the JSON document, which name the tool and the source rather than the device.
QStringList jsonHeaderKeys();

// The report a JSON document holds, as read back from a saved report or from this tool's --json: the
// sections it has, their values as given (a value it lacks is empty), and its source as the header
// names it. The document is taken to have the report's shape (read/ReportInput checks it).
Report reportFromJson(const QJsonObject &document);

// A section's values one by one, keyed as "summary", "banks.FPGA_BANK_2_VER" or "images[1].name"
// (images by their index); identityToolsRun, which says how the report was made, is left out. The
// diff and the release profile compare reports so.
QMap<QString, QJsonValue> sectionValues(const QJsonValue &section);
// Keys in report order: "images[2].name" before "images[10].name", runs of digits compare as numbers.
bool inReportOrder(const QString &a, const QString &b);

// `value` as I-JSON (RFC 7493) has it: every lone surrogate of its texts and keys, which strict
// parsers refuse, replaced by U+FFFD.
QJsonValue interchangeable(const QJsonValue &value);
// A document of the tool, indented, as I-JSON.
QByteArray jsonDocumentBytes(const QJsonObject &document);

// A value as a message shows it: texts bare, a list as "a or b", an absent one as "(absent)".
QString shownValue(const QJsonValue &value);

#endif // RFSYSINFO_REPORTJSON_H
