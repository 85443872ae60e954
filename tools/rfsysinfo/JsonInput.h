// JSON documents that come from outside: release profiles and saved reports. They are read with the
// care a capture gets: a bounded read of a regular file, and a refusal with one reason for anything a
// report could not be (NUL bytes, invalid UTF-8, a key twice in one object, no JSON object at all).
#ifndef RFSYSINFO_JSONINPUT_H
#define RFSYSINFO_JSONINPUT_H

#include <QJsonObject>
#include <QString>

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

#endif // RFSYSINFO_JSONINPUT_H
