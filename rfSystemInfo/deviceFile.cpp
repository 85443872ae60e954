#include "deviceFile.h"

#include "devicePaths.h"
#include "markers.h"

#include <QDataStream>
#include <QHash>
#include <QMutex>
#include <QSettings>
#include <QTextStream>
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
#include <QTextCodec>
#endif

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

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

namespace {

// The bytes of the open file `fd` from where it stands: all, or up to and including the first line
// feed; at most maxFileBytes.
QByteArray readBytes(int fd, bool firstLineOnly)
{
    QByteArray bytes;
    char buffer[16384];
    while (bytes.size() < maxFileBytes) {
        const size_t wanted = static_cast<size_t>(std::min<qint64>(sizeof buffer, maxFileBytes - bytes.size()));
        const ssize_t count = ::read(fd, buffer, wanted);
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
    return bytes;
}

} // namespace

std::optional<QByteArray> readDeviceBytes(const char *path, bool firstLineOnly)
{
    const int fd = paths::openRegularFile(path);
    if (fd < 0)
        return std::nullopt;
    const QByteArray bytes = readBytes(fd, firstLineOnly);
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
    const std::optional<QByteArray> bytes = readDeviceBytes(QFile::encodeName(path).constData(), false);
    if (!bytes)
        return std::nullopt;
    QTextStream stream(*bytes, QIODevice::ReadOnly);
    // The lists are written in UTF-8 whatever the caller's locale (Qt 5 would take the locale's).
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    static QTextCodec *const utf8 = QTextCodec::codecForMib(106); // looked up once, not per call
    stream.setCodec(utf8);
#else
    stream.setEncoding(QStringConverter::Utf8);
#endif
    list.count = stream.readLine().toInt();
    const int kept = std::clamp(list.count, 0, capacity);
    list.entries.reserve(static_cast<size_t>(kept));
    for (int i = 0; i < kept; ++i)
        list.entries.push_back(stream.readLine().toStdString());
    return list;
}

namespace {

// QSettings opens files by name, and a name can be swapped for a FIFO (which would hold the open)
// between any check and that open. So the file is opened, judged and read here, and QSettings parses
// a copy in memory of exactly the bytes read, through the copy's descriptor's name in /proc. What it
// parsed is kept with the file's stamp and used until any part of the stamp changes: every read opens
// the file, but reads and parses it only when it changed.
struct FileStamp
{
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = -1;
    timespec modified{}, changed{};
};

bool sameFile(const FileStamp &a, const FileStamp &b)
{
    return a.device == b.device && a.inode == b.inode && a.size == b.size && a.modified.tv_sec == b.modified.tv_sec &&
           a.modified.tv_nsec == b.modified.tv_nsec && a.changed.tv_sec == b.changed.tv_sec &&
           a.changed.tv_nsec == b.changed.tv_nsec;
}

// QSettings keeps its own parse under a name and trusts it while the size and modification time (in
// milliseconds) stay the same, so another file given the same descriptor number later must not match
// both: where it would, QSettings first reads an empty file under the name.
bool qtTakesForTheSame(const FileStamp &a, const FileStamp &b)
{
    return a.size == b.size && a.modified.tv_sec == b.modified.tv_sec &&
           a.modified.tv_nsec / 1000000 == b.modified.tv_nsec / 1000000;
}

// The name QSettings is to parse the open regular file `fd` by, its cache made safe for it; the file's
// own path where there is no /proc (a rescue system). Called under the parses' lock.
QString nameForQSettings(int fd, const FileStamp &stamp, const QString &path)
{
    static std::map<int, FileStamp> shown; // what each name last showed QSettings
    static const bool procShown = ::access("/proc/self/fd", X_OK) == 0;
    if (!procShown)
        return path;
    const QString name = QStringLiteral("/proc/self/fd/") + QString::number(fd);
    FileStamp &last = shown[fd];
    if (!sameFile(last, stamp) && qtTakesForTheSame(last, stamp)) {
        const int empty = ::memfd_create("rfsi-empty", MFD_CLOEXEC);
        const int kept = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
        if (empty >= 0 && kept >= 0 && ::dup3(empty, fd, O_CLOEXEC) == fd) {
            const QSettings forget(name, QSettings::IniFormat);
            ::dup3(kept, fd, O_CLOEXEC);
        }
        for (int spare : {empty, kept})
            if (spare >= 0)
                ::close(spare);
    }
    last = stamp;
    return name;
}

FileStamp stampOf(const struct stat &info)
{
    return {info.st_dev, info.st_ino, info.st_size, info.st_mtim, info.st_ctim};
}

// The text QSettings is to parse for a file of `bytes`. The instrument's programs know the answers
// of Qt 5, which reads an INI file byte by byte as Latin-1, or, after a UTF-8 byte order mark, as UTF-8
// (the mark then starts the first key, and a byte that is no UTF-8 becomes U+FFFD). Qt 6 reads UTF-8
// and drops such bytes, so it is given the text Qt 5 would read, as UTF-8.
QByteArray textForQSettings(const QByteArray &bytes)
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    static const char byteOrderMark[] = "\xef\xbb\xbf";
    return bytes.startsWith(byteOrderMark)
               ? QString::fromLatin1(byteOrderMark).toUtf8() + QString::fromUtf8(bytes.mid(3)).toUtf8()
               : QString::fromLatin1(bytes).toUtf8();
#else
    return bytes;
#endif
}

using Settings = QHash<QString, QVariant>;

// The settings of a file that holds `text`, made in memory; none where it cannot be made.
Settings settingsOfText(const QByteArray &text, const QString &path)
{
    const int copy = ::memfd_create("rfsi-ini", MFD_CLOEXEC);
    struct stat info;
    Settings values;
    if (copy >= 0 && ::write(copy, text.constData(), static_cast<size_t>(text.size())) == text.size() &&
        ::fstat(copy, &info) == 0) {
        const QSettings settings(nameForQSettings(copy, stampOf(info), path), QSettings::IniFormat);
        for (const QString &key : settings.allKeys())
            values.insert(key, settings.value(key));
    }
    if (copy >= 0)
        ::close(copy);
    return values;
}

// A value "@Variant(...)" is a QVariant that QSettings deserializes, allocating what its counts say
// before it reads what they count: one line can ask for gigabytes. Such values are first read as
// bytes ("@ByteArray(@Variant(...)"), checked, and only then deserialized.
constexpr char storedValue[] = "@Variant(";
constexpr char storedValueAsBytes[] = "@ByteArray(@Variant(";

// Whether Qt reads the stored value `bytes` (a QVariant as QDataStream's Qt 4.0 format writes it)
// without allocating more than the bytes hold: texts, numbers, and lists and maps of them whose every
// count stays within the bytes that follow.
class StoredValueCheck
{
public:
    explicit StoredValueCheck(const QByteArray &bytes) : bytes(bytes) {}
    bool holds() { return variant(0) && at == bytes.size(); }

private:
    enum Type : quint32 {
        Bool = 1,
        Int,
        UInt,
        LongLong,
        ULongLong,
        Double,
        Char,
        VariantMap,
        VariantList,
        String,
        StringList,
        ByteArray,
        VariantHash = 28
    };
    static constexpr int deepest = 16;

    bool number(quint32 &value)
    {
        if (bytes.size() - at < 4)
            return false;
        const auto *data = reinterpret_cast<const uchar *>(bytes.constData() + at);
        value = quint32(data[0]) << 24 | quint32(data[1]) << 16 | quint32(data[2]) << 8 | data[3];
        at += 4;
        return true;
    }
    bool skip(quint32 count)
    {
        if (count > quint32(bytes.size() - at))
            return false;
        at += int(count);
        return true;
    }
    bool text()
    {
        quint32 length = 0;
        return number(length) && (length == 0xffffffff || skip(length));
    }
    template <typename Element>
    bool list(int depth, Element element)
    {
        quint32 count = 0;
        if (depth >= deepest || !number(count) || count > quint32(bytes.size() - at) / 4)
            return false;
        for (quint32 i = 0; i < count; ++i)
            if (!element())
                return false;
        return true;
    }
    bool variant(int depth)
    {
        quint32 type = 0;
        if (!number(type))
            return false;
        switch (type) {
        case Bool:
            return skip(1);
        case Char:
            return skip(2);
        case Int:
        case UInt:
            return skip(4);
        case LongLong:
        case ULongLong:
        case Double:
            return skip(8);
        case String:
        case ByteArray:
            return text();
        case StringList:
            return list(depth, [this] { return text(); });
        case VariantList:
            return list(depth, [this, depth] { return variant(depth + 1); });
        case VariantMap:
        case VariantHash:
            return list(depth, [this, depth] { return text() && variant(depth + 1); });
        default:
            return false;
        }
    }

    const QByteArray &bytes;
    int at = 0;
};

QByteArray withStoredValuesRestored(QByteArray bytes)
{
    return bytes.replace(storedValueAsBytes, storedValue);
}

// A value read with its stored values as bytes, as QSettings gives the original, but a stored value it
// could not read without allocating more than it holds: that one reads as invalid, as a broken one does.
QVariant restoredValue(const QVariant &value, bool &allBounded)
{
    if (value.userType() == QMetaType::QByteArray) {
        const QByteArray bytes = value.toByteArray();
        if (!bytes.startsWith(storedValue))
            return withStoredValuesRestored(bytes);
        const QByteArray stored = withStoredValuesRestored(bytes.mid(int(sizeof storedValue) - 1));
        if (!StoredValueCheck(stored).holds()) {
            allBounded = false;
            return {};
        }
        QDataStream stream(stored);
        stream.setVersion(QDataStream::Qt_4_0);
        QVariant restored;
        stream >> restored;
        return restored;
    }
    if (value.userType() == QMetaType::QString)
        return value.toString().replace(QLatin1String(storedValueAsBytes), QLatin1String(storedValue));
    if (value.userType() == QMetaType::QStringList || value.userType() == QMetaType::QVariantList) {
        QVariantList elements;
        bool allText = true;
        for (const QVariant &element : value.toList()) {
            elements << restoredValue(element, allBounded);
            allText = allText && elements.last().userType() == QMetaType::QString;
        }
        if (!allText)
            return elements;
        QStringList texts;
        for (const QVariant &element : elements)
            texts << element.toString();
        return texts;
    }
    return value;
}

// The settings of the open regular file `fd` at `path`, as Qt 5 reads them, from what was read of it
// (at most maxFileBytes). A stored value QSettings could not read without allocating more than it
// holds reads as invalid; where there is none, QSettings reads the text as it stands.
void readSettings(int fd, const QString &path, QHash<QString, QString> &values)
{
    const QByteArray text = textForQSettings(readBytes(fd, false));
    Settings settings;
    bool allBounded = true;
    if (text.contains(storedValue)) {
        settings = settingsOfText(QByteArray(text).replace(storedValue, storedValueAsBytes), path);
        for (QVariant &value : settings)
            value = restoredValue(value, allBounded);
    }
    if (allBounded)
        settings = settingsOfText(text, path);
    for (auto value = settings.cbegin(); value != settings.cend(); ++value)
        values.insert(value.key(), value.value().toString());
}

struct ParsedIni
{
    FileStamp stamp;
    QHash<QString, QString> values;
};

// Every value of the open INI file `fd` at `path`, as QSettings gives it.
const QHash<QString, QString> &parsedValues(int fd, const FileStamp &stamp, const QString &path)
{
    static QHash<QString, ParsedIni> parsed;
    ParsedIni &last = parsed[path];
    if (!sameFile(last.stamp, stamp)) {
        last = {stamp, {}};
        readSettings(fd, path, last.values);
    }
    return last.values;
}

} // namespace

std::optional<QStringList> readIniValues(const QString &path, const QStringList &keys)
{
    const int fd = paths::openDeviceNode(QFile::encodeName(path).constData());
    if (fd < 0 && paths::nothingStandsThere(errno))
        return std::nullopt;
    QStringList values;
    struct stat info;
    // Anything but a regular file counts as present and unreadable.
    if (fd < 0 || ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        if (fd >= 0)
            ::close(fd);
        for (int i = 0; i < keys.size(); ++i)
            values << QString::fromLatin1(marker::keyMissing);
        return values;
    }
    {
        static QMutex mutex;
        const QMutexLocker locker(&mutex);
        const QHash<QString, QString> &parsed = parsedValues(fd, stampOf(info), path);
        for (const QString &key : keys)
            values << parsed.value(key, QString::fromLatin1(marker::keyMissing));
    }
    ::close(fd);
    return values;
}

std::optional<QString> readIniValue(const QString &path, const QString &key)
{
    const std::optional<QStringList> values = readIniValues(path, {key});
    return values ? std::optional<QString>(values->first()) : std::nullopt;
}

} // namespace rfsi
