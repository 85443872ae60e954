// Small helpers that several subsystems share for reading the instrument's files. Internal to the
// library: nothing here is exported.
#ifndef RFSYSTEMINFO_DEVICEFILE_H
#define RFSYSTEMINFO_DEVICEFILE_H

#include <QString>

#include <optional>
#include <string>

namespace rfsi {

// Marker for a missing file, an empty value or an index outside a lookup's range.
inline constexpr char noneMarker[] = "NONE";
// Default handed to a settings lookup: what a present INI file answers for a key it lacks.
inline constexpr char missingKeyMarker[] = "r";

// Bytes as text the way the instrument's callers expect: decoded as UTF-8 and cut at the first NUL.
QString textUpToNul(const char *data, qsizetype size);
QString textUpToNul(const std::string &bytes);

// The value of a top-level key of an INI file, as QSettings delivers it; missingKeyMarker when the
// file lacks the key (or does not parse). std::nullopt when the file does not exist.
std::optional<QString> readIniValue(const QString &path, const QString &key);

} // namespace rfsi

#endif // RFSYSTEMINFO_DEVICEFILE_H
