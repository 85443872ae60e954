#include "deviceFile.h"

#include <QFile>
#include <QSettings>

#include <cstring>

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

std::optional<QString> readIniValue(const QString &path, const QString &key)
{
    if (!QFile::exists(path))
        return std::nullopt;
    const QSettings settings(path, QSettings::IniFormat);
    return settings.value(key, QString::fromLatin1(missingKeyMarker)).toString();
}

} // namespace rfsi
