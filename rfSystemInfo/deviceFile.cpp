#include "deviceFile.h"

#include "devicePaths.h"

#include <QSettings>
#include <QTextCodec>
#include <QTextStream>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
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

std::optional<QByteArray> readDeviceBytes(const char *path, bool firstLineOnly)
{
    const int fd = paths::openRegularFile(path);
    if (fd < 0)
        return std::nullopt;
    QByteArray bytes;
    char buffer[16384];
    for (;;) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        const void *lineEnd = firstLineOnly ? std::memchr(buffer, '\n', static_cast<size_t>(count)) : nullptr;
        if (lineEnd) {
            bytes.append(buffer, static_cast<int>(static_cast<const char *>(lineEnd) - buffer + 1));
            break;
        }
        bytes.append(buffer, static_cast<int>(count));
    }
    ::close(fd);
    return bytes;
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

namespace {

// UTF-8, UTF-16 and UTF-32 byte order marks all start with one of these bytes.
bool startsWithByteOrderMark(const QByteArray &bytes)
{
    return !bytes.isEmpty() && (static_cast<unsigned char>(bytes[0]) >= 0xef || bytes[0] == '\0');
}

} // namespace

std::optional<CountedList> readCountedList(const QString &path, int capacity)
{
    CountedList list;
    // Only the count: one line read as bytes is the same text as through a QTextStream, unless the
    // file starts with a byte order mark, which the stream would act on.
    if (capacity == 0) {
        std::optional<QByteArray> line = readDeviceBytes(QFile::encodeName(path).constData(), true);
        if (!line)
            return std::nullopt;
        if (!startsWithByteOrderMark(*line)) {
            if (line->endsWith('\n'))
                line->chop(line->endsWith("\r\n") ? 2 : 1);
            list.count = QString::fromUtf8(line->constData(), line->size()).toInt();
            return list;
        }
    }
    QFile file(path);
    if (!openForReading(file))
        return std::nullopt;
    QTextStream stream(&file);
    // The lists are written in UTF-8 whatever the caller's locale; looked up once, not per call.
    static QTextCodec *const utf8 = QTextCodec::codecForMib(106);
    stream.setCodec(utf8);
    list.count = stream.readLine().toInt();
    const int kept = std::clamp(list.count, 0, capacity);
    list.entries.reserve(static_cast<size_t>(kept));
    for (int i = 0; i < kept; ++i)
        list.entries.push_back(stream.readLine().toStdString());
    return list;
}

namespace {

// QSettings opens files by name, and a name can be swapped for a FIFO (which would hold the open) between
// any check and that open. So the file is opened and judged here, and QSettings reads it through the
// descriptor's name in /proc. QSettings keeps what it parsed under that name, and trusts it while the
// size and modification time stay the same; another file given the same descriptor number later could
// match both. Reading an empty file under the name before the number is given back leaves nothing to
// trust.
class IniThroughDescriptor
{
public:
    explicit IniThroughDescriptor(int fd)
        : fd(fd), name(QStringLiteral("/proc/self/fd/%1").arg(fd)), readable(::access(name.toLatin1(), R_OK) == 0)
    {}
    IniThroughDescriptor(const IniThroughDescriptor &) = delete;
    IniThroughDescriptor &operator=(const IniThroughDescriptor &) = delete;
    ~IniThroughDescriptor()
    {
        const int empty = ::memfd_create("rfsi-empty", MFD_CLOEXEC);
        if (readable && empty >= 0 && ::dup3(empty, fd, O_CLOEXEC) == fd)
            const QSettings forget(name, QSettings::IniFormat);
        if (empty >= 0)
            ::close(empty);
        ::close(fd);
    }
    // Without /proc (a rescue system), QSettings can only be given the file's own name.
    QString nameFor(const QString &path) const { return readable ? name : path; }

private:
    const int fd;
    const QString name;
    const bool readable;
};

} // namespace

std::optional<QStringList> readIniValues(const QString &path, const QStringList &keys)
{
    const int fd = paths::openDeviceNode(QFile::encodeName(path).constData());
    // A dangling link or a link loop is no file either.
    if (fd < 0 && (errno == ENOENT || errno == ENOTDIR || errno == ELOOP || errno == ENAMETOOLONG))
        return std::nullopt;
    QStringList values;
    struct stat info;
    // Anything but a regular file counts as present and unreadable.
    if (fd < 0 || ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        if (fd >= 0)
            ::close(fd);
        for (int i = 0; i < keys.size(); ++i)
            values << QString::fromLatin1(missingKeyMarker);
        return values;
    }
    const IniThroughDescriptor file(fd);
    const QSettings settings(file.nameFor(path), QSettings::IniFormat);
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
