// Reports and profiles that come from outside: release profiles, saved reports, and the sides of a
// comparison. JSON documents are read with the care a capture gets: a bounded read of a regular file,
// and a refusal with one reason for anything a report could not be (NUL bytes, invalid UTF-8, a key
// twice in one object, no JSON object at all).
#ifndef RFSYSINFO_REPORTINPUT_H
#define RFSYSINFO_REPORTINPUT_H

#include "model/ReportModel.h"

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <optional>

// Larger than any report or profile: a report of the sample device is 4 KiB.
constexpr qint64 jsonInputCap = 1 << 20;

std::optional<QJsonObject> readJsonInput(const QString &path, QString &refusal);

// Which use a document is checked for: a release profile (values may be lists of accepted values, the
// temperature section is no release property) or a saved report.
enum class JsonInputUse { Profile, Report };

// Whether `document` has the report's shape: known sections and keys, each value of the report's type.
// Header keys and identityToolsRun are ignored. `refusal` names the place.
bool hasReportShape(const QJsonObject &document, JsonInputUse use, QString &refusal);

// One side of a comparison: its report, and where it comes from.
struct DiffSide
{
    QString kind; // "capture", "tree", "report" or "instrument"
    QString name; // as given; empty for the instrument
    Report report;
    QString captured; // a capture's (or a saved replay's) time of capture
};

// The report of a side: `path` a capture, a device tree or a JSON report written by rfsysinfo --json;
// empty for this instrument. Captures and trees are read by this program run again, each in a private
// device root of its own; `allowTools` runs a tree's identity tools. Nothing, with `error`, when the
// side cannot be read.
std::optional<DiffSide> readDiffSide(const QString &path, bool allowTools, QString &error);

#endif // RFSYSINFO_REPORTINPUT_H
