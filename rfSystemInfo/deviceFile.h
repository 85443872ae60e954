// Small helpers that several subsystems share for reading the instrument's files. Internal to the
// library: nothing here is exported.
#ifndef RFSYSTEMINFO_DEVICEFILE_H
#define RFSYSTEMINFO_DEVICEFILE_H

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QStringList>

#include <optional>
#include <string>
#include <vector>

namespace rfsi {

// No query reads more of a file than this, far above any real device file: a longer file reads as its
// first maxFileBytes bytes, so that neither memory nor time grows with a file's size beyond it.
constexpr qint64 maxFileBytes = 64 * 1024 * 1024;

// Bytes as text the way the instrument's callers expect: decoded as UTF-8 and cut at the first NUL.
QString textUpToNul(const char *data, qsizetype size);
QString textUpToNul(const std::string &bytes);
QString textUpToNul(const QByteArray &bytes);

// The value of a top-level key of an INI file, as QSettings delivers it; marker::keyMissing when the
// file lacks the key, does not parse or is not a regular file. std::nullopt when the file does not
// exist.
std::optional<QString> readIniValue(const QString &path, const QString &key);
// The same for several keys of one file, read through one settings object: what a lookup costs is
// mostly the settings object itself.
std::optional<QStringList> readIniValues(const QString &path, const QStringList &keys);

// Whether a file (or folder) stands at `path`; a symbolic link counts when its target does.
bool exists(const QString &path);

// Whether `path` leads to a regular file (links followed).
bool isRegularFile(const QString &path);

// The bytes of the regular file at `path`: all of them, or (`firstLineOnly`) up to and including the
// first line feed; never more than maxFileBytes. std::nullopt when it does not open or is not a
// regular file.
std::optional<QByteArray> readDeviceBytes(const char *path, bool firstLineOnly);

// A counted list: line 1 holds the number of entries, each following line one entry, untrimmed.
struct CountedList
{
    int count = 0;                    // line 1 as a number; 0 when it is not one
    std::vector<std::string> entries; // the first min(count, capacity) entries, UTF-8
};

// Reads a counted list, keeping at most `capacity` entries; lines missing at the end of the file read
// as empty entries. std::nullopt when the file does not exist or does not open (one open tells both).
std::optional<CountedList> readCountedList(const QString &path, int capacity);

} // namespace rfsi

#endif // RFSYSTEMINFO_DEVICEFILE_H
