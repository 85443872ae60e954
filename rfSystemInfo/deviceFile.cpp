#include "deviceFile.h"

#include "devicePaths.h"
#include "markers.h"

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

// The settings of a file that holds `text`, as texts, made in memory; none where it cannot be made.
QHash<QString, QString> settingsOfText(const QByteArray &text, const QString &path)
{
    const int copy = ::memfd_create("rfsi-ini", MFD_CLOEXEC);
    struct stat info;
    QHash<QString, QString> values;
    if (copy >= 0 && ::write(copy, text.constData(), static_cast<size_t>(text.size())) == text.size() &&
        ::fstat(copy, &info) == 0) {
        const QSettings settings(nameForQSettings(copy, stampOf(info), path), QSettings::IniFormat);
        // No fixed key is empty, and QSettings warns about every empty one it is asked for.
        for (const QString &key : settings.allKeys())
            if (!key.isEmpty())
                values.insert(key, settings.value(key).toString());
    }
    if (copy >= 0)
        ::close(copy);
    return values;
}

// A value "@Variant(...)" (or "@DateTime(...)", in a later stream format) is a QVariant that QSettings
// deserializes, allocating what its counts say before it reads what they count: one line can ask for
// gigabytes. Escapes can spell it too ("@Vari\x61nt("), so the text is scanned as QSettings scans it
// (IniStoredValues, below), and each stored value is checked before QSettings sees it.
constexpr char storedValue[] = "@Variant(";
constexpr char storedValueWithNullFlags[] = "@DateTime(";

// Whether Qt reads the stored value `bytes` (a QVariant as QDataStream's Qt 4.0 format writes it)
// without allocating more than the bytes hold: texts, numbers, and lists and maps of them whose every
// count stays within the bytes that follow.
class StoredValueCheck
{
public:
    StoredValueCheck(const QByteArray &bytes, bool nullFlags) : bytes(bytes), nullFlags(nullFlags) {}
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
        if (!number(type) || (nullFlags && !skip(1)))
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
    const bool nullFlags; // each variant's type is followed by a byte that says whether it is null
    int at = 0;
};

// The stored values of an INI text, found as QSettings finds them: its lines (a quote or a backslash
// carries one over a line end; a ';' at a line's start makes it a comment), the value after each
// key's first '=', and in it the elements of a list, unescaped ("\\x41", "\\101", "\\n", a skipped
// unknown escape). An element whose text starts with a stored value's prefix and ends with ")" is
// deserialized. Where this scan could differ from Qt's (trailing spaces), it finds more, never fewer.
class IniStoredValues
{
public:
    struct Element
    {
        int from, to;     // its bytes in the text, separators excluded
        QByteArray bytes; // what QDataStream reads: the text between the prefix and ")", as Latin-1
        bool nullFlags;
    };

    explicit IniStoredValues(const QByteArray &text) : text(text)
    {
        int at = 0, start = 0, length = 0, equals = -1;
        while (nextLine(at, start, length, equals))
            if (equals >= 0 && text.at(start) != '[')
                scanValue(equals + 1, start + length);
    }
    QVector<Element> found;

private:
    static bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

    bool nextLine(int &at, int &start, int &length, int &equals) const
    {
        const int size = text.size();
        bool quoted = false;
        equals = -1;
        start = at;
        while (start < size && isSpace(text.at(start)))
            ++start;
        int i = start;
        while (i < size) {
            const char c = text.at(i++);
            if (c == '=' && !quoted && equals < 0) {
                equals = i - 1;
            } else if (c == '\n' || c == '\r') {
                if (i == start + 1)
                    ++start;
                else if (!quoted) {
                    --i;
                    break;
                }
            } else if (c == '\\') {
                if (i < size) {
                    const char escaped = text.at(i++);
                    if (i < size &&
                        ((escaped == '\n' && text.at(i) == '\r') || (escaped == '\r' && text.at(i) == '\n')))
                        ++i;
                }
            } else if (c == '"') {
                quoted = !quoted;
            } else if (c == ';') {
                if (i == start + 1) {
                    while (i < size && text.at(i) != '\n' && text.at(i) != '\r')
                        ++i;
                    while (i < size && isSpace(text.at(i)))
                        ++i;
                    start = i;
                } else if (!quoted) {
                    --i;
                    break;
                }
            }
        }
        at = i;
        length = i - start;
        return length > 0;
    }

    // Appends the character of a "\\x" or octal escape, whose digits start at `i`.
    int numericEscape(int i, int to, int base, QString &element) const
    {
        uint value = 0;
        for (int digit; i < to && (digit = digitValue(text.at(i), base)) >= 0; ++i)
            value = value * uint(base) + uint(digit);
        element += QChar(ushort(value & 0xffff));
        return i;
    }
    static int digitValue(char c, int base)
    {
        const int value = c >= '0' && c <= '9'   ? c - '0'
                          : c >= 'a' && c <= 'f' ? c - 'a' + 10
                          : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                 : 99;
        return value < base ? value : -1;
    }

    void scanValue(int from, int to)
    {
        static const char simpleEscapes[] = "abfnrtv\"?'\\";
        static const char simpleMeanings[] = "\a\b\f\n\r\t\v\"?'\\";
        bool quoted = false, elementQuoted = false;
        QString element;
        int i = from, elementStart = from;
        auto skipSpaces = [&] {
            while (i < to && (text.at(i) == ' ' || text.at(i) == '\t'))
                ++i;
        };
        skipSpaces();
        while (i < to) {
            const char c = text.at(i);
            if (c == '\\') {
                if (++i >= to)
                    break;
                const char escaped = text.at(i++);
                if (const char *simple = std::strchr(simpleEscapes, escaped); simple && escaped)
                    element += QLatin1Char(simpleMeanings[simple - simpleEscapes]);
                else if (escaped == 'x' && i < to && digitValue(text.at(i), 16) >= 0)
                    i = numericEscape(i, to, 16, element);
                else if (escaped >= '0' && escaped <= '7')
                    i = numericEscape(i - 1, to, 8, element);
                else if ((escaped == '\n' || escaped == '\r') && i < to && (text.at(i) == '\n' || text.at(i) == '\r') &&
                         text.at(i) != escaped)
                    ++i;
            } else if (c == '"') {
                ++i;
                quoted = !quoted;
                elementQuoted = true;
                if (!quoted)
                    skipSpaces();
            } else if (c == ',' && !quoted) {
                addElement(elementStart, i, element, elementQuoted);
                elementStart = ++i;
                elementQuoted = false;
                skipSpaces();
            } else {
                int j = i + 1;
                while (j < to && text.at(j) != '\\' && text.at(j) != '"' && text.at(j) != ',')
                    ++j;
                element += decoded(text.constData() + i, j - i);
                i = j;
            }
        }
        addElement(elementStart, to, element, elementQuoted);
    }

    static QString decoded(const char *bytes, int size)
    {
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
        return QString::fromUtf8(bytes, size);
#else
        return QString::fromLatin1(bytes, size);
#endif
    }

    void addElement(int from, int to, QString &element, bool quoted)
    {
        while (!quoted && (element.endsWith(QLatin1Char(' ')) || element.endsWith(QLatin1Char('\t'))))
            element.chop(1);
        for (const QLatin1String prefix : {QLatin1String(storedValue), QLatin1String(storedValueWithNullFlags)})
            if (element.startsWith(prefix) && element.endsWith(QLatin1Char(')')))
                found.push_back({from, to, element.mid(prefix.size(), element.size() - prefix.size() - 1).toLatin1(),
                                 prefix == QLatin1String(storedValueWithNullFlags)});
        element.clear();
    }

    const QByteArray &text;
};

// The text with every stored value that Qt could not read without allocating more than it holds made
// "@Invalid()", which QSettings reads as it reads a broken stored value.
QByteArray withUnboundedValuesInvalid(QByteArray text)
{
    const QVector<IniStoredValues::Element> stored = IniStoredValues(text).found;
    for (auto element = stored.crbegin(); element != stored.crend(); ++element)
        if (!StoredValueCheck(element->bytes, element->nullFlags).holds())
            text.replace(element->from, element->to - element->from, "@Invalid()");
    return text;
}

// The settings of the open regular file `fd` at `path`, as Qt 5 reads them, from what was read of it
// (at most maxFileBytes), but a stored value QSettings could not read without allocating more than it
// holds, which reads as invalid.
QHash<QString, QString> readSettings(int fd, const QString &path)
{
    return settingsOfText(withUnboundedValuesInvalid(textForQSettings(readBytes(fd, false))), path);
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
        last = {stamp, readSettings(fd, path)};
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
