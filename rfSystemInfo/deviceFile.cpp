#include "deviceFile.h"

#include "devicePaths.h"

#include <QSettings>
#include <QTextCodec>
#include <QTextStream>

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rfsi {

QString textUpToNul(const char *data, qsizetype size)
{
    const void *nul = std::memchr(data, '\0', static_cast<size_t>(size));
    const qsizetype length = nul ? static_cast<const char *>(nul) - data : size;
    return QString::fromUtf8(data, static_cast<int>(length));
}

QString textUpToNul(const std::string &bytes)
{
    return textUpToNul(bytes.data(), static_cast<qsizetype>(bytes.size()));
}

QString textUpToNul(const QByteArray &bytes)
{
    return textUpToNul(bytes.constData(), bytes.size());
}

bool exists(const QString &path)
{
    return QFile::exists(path);
}

bool isRegularFile(const QString &path)
{
    struct stat info;
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 && S_ISREG(info.st_mode);
}

bool openForReading(QFile &file, QIODevice::OpenMode mode)
{
    const int fd = paths::openRegularFile(QFile::encodeName(file.fileName()).constData());
    if (fd < 0)
        return false;
    if (!file.open(fd, mode, QFileDevice::AutoCloseHandle)) {
        ::close(fd);
        return false;
    }
    return true;
}

std::optional<CountedList> readCountedList(const QString &path, int capacity)
{
    QFile file(path);
    if (!openForReading(file))
        return std::nullopt;
    QTextStream stream(&file);
    // The lists are written in UTF-8 whatever the caller's locale; looked up once, not per call.
    static QTextCodec *const utf8 = QTextCodec::codecForMib(106);
    stream.setCodec(utf8);
    CountedList list;
    list.count = stream.readLine().toInt();
    const int kept = std::clamp(list.count, 0, capacity);
    list.entries.reserve(static_cast<size_t>(kept));
    for (int i = 0; i < kept; ++i)
        list.entries.push_back(stream.readLine().toStdString());
    return list;
}

std::optional<QStringList> readIniValues(const QString &path, const QStringList &keys)
{
    if (!exists(path))
        return std::nullopt;
    QStringList values;
    // QSettings opens the file itself, so the check comes just before: anything but a regular file
    // counts as present and unreadable.
    if (!isRegularFile(path)) {
        for (int i = 0; i < keys.size(); ++i)
            values << QString::fromLatin1(missingKeyMarker);
        return values;
    }
    const QSettings settings(path, QSettings::IniFormat);
    for (const QString &key : keys)
        values << settings.value(key, QString::fromLatin1(missingKeyMarker)).toString();
    return values;
}

std::optional<QString> readIniValue(const QString &path, const QString &key)
{
    const std::optional<QStringList> values = readIniValues(path, {key});
    return values ? std::optional<QString>(values->first()) : std::nullopt;
}

} // namespace rfsi
