#include "CaptureArchive.h"

#include "devicePaths.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

#include <archive.h>
#include <archive_entry.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <memory>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char formatName[] = "rfsysinfo-capture";
// What a whole capture unpacks to at most: the files, the manifest and tar's own headers.
constexpr qint64 streamCap = captureTotalCap + manifestCap + (1 << 20);
constexpr int readBlock = 65536;
// The modification times a manifest may record: from the year 1 to the end of the year 9999 (a tree
// on a file system with a wider range is captured with its times held to this one).
constexpr qint64 earliestTime = -62135596800;
constexpr qint64 latestTime = 253402300799;

using ArchivePointer = std::unique_ptr<archive, int (*)(archive *)>;
using EntryPointer = std::unique_ptr<archive_entry, void (*)(archive_entry *)>;

QString entryName(const QString &path)
{
    return path.mid(1); // fixed paths are absolute; entries are relative to the device's root
}

QString mebibytes(qint64 bytes)
{
    return QStringLiteral("%1 MiB").arg(bytes >> 20);
}

// --- writing ---

QJsonObject manifestJson(const DeviceState &state)
{
    const CaptureOrigin &origin = state.origin;
    QJsonObject paths;
    for (const DeviceNode &file : state.files) {
        QJsonObject node{{"kind", nodeKindName(file.kind)}};
        if (file.kind == NodeKind::File) {
            node.insert("size", static_cast<double>(file.content.size()));
            node.insert("modified", static_cast<double>(std::clamp(file.modified, earliestTime, latestTime)));
            node.insert("truncated", file.truncated);
        }
        paths.insert(file.path, node);
    }
    QJsonObject tools;
    for (const DeviceNode &tool : state.tools)
        tools.insert(tool.path, nodeKindName(tool.kind));
    QJsonArray answers;
    for (const IdentityAnswer &answer : state.answers)
        answers.append(
            QJsonObject{{"program", answer.program}, {"argument", answer.argument}, {"output", answer.output}});
    QJsonObject manifest{
        {"format", formatName},
        // Without the instrument's software (a capture of a format 1 capture) it is format 1 still.
        {"formatVersion", origin.software ? captureFormatVersion : 1},
        {"toolVersion", origin.toolVersion},
        {"captured", origin.captured.toUTC().toString(Qt::ISODate)},
        {"source", origin.sourceTree.isEmpty() ? "instrument" : "tree"},
        {"sourceTree", origin.sourceTree.isEmpty() ? QJsonValue() : QJsonValue(origin.sourceTree)},
        {"sanitized", origin.sanitized},
        {"paths", paths},
        {"identity", QJsonObject{{"toolsAsked", state.toolsAsked}, {"tools", tools}, {"answers", answers}}},
    };
    if (origin.software)
        manifest.insert("software", QJsonObject{{"firmwareVersion", origin.software->firmwareVersion},
                                                {"uiVersion", origin.software->uiVersion},
                                                {"rfSerial", origin.software->rfSerial}});
    return manifest;
}

la_ssize_t appendToByteArray(archive *, void *target, const void *data, size_t size)
{
    static_cast<QByteArray *>(target)->append(static_cast<const char *>(data), static_cast<int>(size));
    return static_cast<la_ssize_t>(size);
}

bool addEntry(archive *writer, const QString &name, const QByteArray &content, qint64 modified)
{
    const EntryPointer entry(archive_entry_new(), archive_entry_free);
    archive_entry_set_pathname(entry.get(), name.toUtf8().constData());
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), 0644);
    archive_entry_set_uid(entry.get(), 0);
    archive_entry_set_gid(entry.get(), 0);
    archive_entry_set_uname(entry.get(), "root");
    archive_entry_set_gname(entry.get(), "root");
    archive_entry_set_mtime(entry.get(), static_cast<time_t>(std::clamp(modified, earliestTime, latestTime)), 0);
    archive_entry_set_size(entry.get(), content.size());
    return archive_write_header(writer, entry.get()) == ARCHIVE_OK &&
           archive_write_data(writer, content.constData(), static_cast<size_t>(content.size())) == content.size();
}

// --- reading ---

// libarchive (3.6) does not check the CRC-32 and the length that end a gzip stream, so a damaged byte
// would unpack unnoticed. A capture is one gzip member, so its last eight bytes are that trailer.
bool matchesGzipTrailer(int fd, const QByteArray &stream)
{
    struct stat info;
    unsigned char trailer[8];
    if (::fstat(fd, &info) != 0 || info.st_size < 8 || ::pread(fd, trailer, sizeof trailer, info.st_size - 8) != 8)
        return false;
    auto littleEndian = [&trailer](int at) {
        return static_cast<quint32>(trailer[at]) | static_cast<quint32>(trailer[at + 1]) << 8 |
               static_cast<quint32>(trailer[at + 2]) << 16 | static_cast<quint32>(trailer[at + 3]) << 24;
    };
    const uLong crc =
        ::crc32(0L, reinterpret_cast<const Bytef *>(stream.constData()), static_cast<uInt>(stream.size()));
    return littleEndian(0) == static_cast<quint32>(crc) && littleEndian(4) == static_cast<quint32>(stream.size());
}

// The whole decompressed stream, read through gzip alone: a plain file, or anything that unpacks to
// more than a capture can hold, is refused here, before any entry is looked at.
std::optional<QByteArray> decompressedStream(int fd, QString &refusal)
{
    const ArchivePointer reader(archive_read_new(), archive_read_free);
    archive_read_support_filter_gzip(reader.get());
    archive_read_support_format_raw(reader.get());
    archive_entry *entry = nullptr;
    if (archive_read_open_fd(reader.get(), fd, readBlock) != ARCHIVE_OK ||
        archive_read_next_header(reader.get(), &entry) != ARCHIVE_OK) {
        refusal = QStringLiteral("the archive cannot be read: %1").arg(archive_error_string(reader.get()));
        return std::nullopt;
    }
    if (archive_filter_code(reader.get(), 0) != ARCHIVE_FILTER_GZIP) {
        refusal = QStringLiteral("not a capture archive: not gzip-compressed");
        return std::nullopt;
    }
    QByteArray stream;
    char buffer[readBlock];
    for (;;) {
        const la_ssize_t count = archive_read_data(reader.get(), buffer, sizeof buffer);
        if (count < 0) {
            refusal = QStringLiteral("the archive is truncated or corrupt: %1").arg(archive_error_string(reader.get()));
            return std::nullopt;
        }
        if (count == 0) {
            if (matchesGzipTrailer(fd, stream))
                return stream;
            refusal = QStringLiteral("the archive is corrupt: its contents do not match the gzip checksum");
            return std::nullopt;
        }
        stream.append(buffer, static_cast<int>(count));
        if (stream.size() > streamCap) {
            refusal = QStringLiteral("the archive unpacks to more than %1, more than a capture holds; stopped there")
                          .arg(mebibytes(streamCap));
            return std::nullopt;
        }
    }
}

// Why the kind of entry that `entry` is cannot be part of a capture; empty for a regular file.
QString typeRefusal(archive_entry *entry)
{
    if (archive_entry_hardlink(entry))
        return QStringLiteral("is a hard link");
    switch (archive_entry_filetype(entry)) {
    case AE_IFREG:
        return {};
    case AE_IFLNK:
        return QStringLiteral("is a symbolic link");
    case AE_IFCHR:
    case AE_IFBLK:
        return QStringLiteral("is a device node");
    case AE_IFIFO:
        return QStringLiteral("is a FIFO");
    case AE_IFDIR:
        return QStringLiteral("is a folder");
    default:
        return QStringLiteral("is not a regular file");
    }
}

bool landsOutside(const QString &name)
{
    return name.startsWith('/') || name.split('/').contains(QStringLiteral(".."));
}

// The manifest's view of the device. Strict: every key that a capture writes, of the right type, and
// nothing else for the fixed paths and the tools.
class ManifestReader
{
public:
    std::optional<DeviceState> read(const QByteArray &bytes, QString &refusal)
    {
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
        if (!document.isObject())
            return refuse(refusal, QStringLiteral("is not a JSON object (%1)").arg(error.errorString()));
        const QJsonObject manifest = document.object();
        if (manifest.value("format") != QLatin1String(formatName))
            return refuse(refusal, QStringLiteral("does not name the format \"%1\"").arg(formatName));
        const QJsonValue version = manifest.value("formatVersion");
        if (version != 1 && version != captureFormatVersion)
            return refuse(refusal, QStringLiteral("has format version %1; this rfsysinfo reads versions 1 to %2")
                                       .arg(version.toVariant().toString())
                                       .arg(captureFormatVersion));
        DeviceState state;
        if (!readOrigin(manifest, version == captureFormatVersion, state.origin))
            return refuse(refusal, QStringLiteral("has no valid tool version, time, source or software record"));
        const QJsonObject paths = manifest.value("paths").toObject();
        if (QStringList(paths.keys()) != capturedFilePaths())
            return refuse(refusal, QStringLiteral("does not list exactly the paths a capture holds"));
        for (const QString &path : capturedFilePaths()) {
            DeviceNode node{path, NodeKind::Missing, {}, 0, false};
            const QJsonObject recorded = paths.value(path).toObject();
            if (!nodeKindFromName(recorded.value("kind").toString(), node.kind))
                return refuse(refusal, QStringLiteral("gives %1 no known kind").arg(path));
            if (node.kind == NodeKind::File) {
                const std::optional<qint64> size = wholeNumber(recorded.value("size"), captureFileCap);
                const std::optional<qint64> modified =
                    wholeNumber(recorded.value("modified"), latestTime, earliestTime);
                if (!size || !modified || !recorded.value("truncated").isBool())
                    return refuse(refusal,
                                  QStringLiteral("gives the file %1 no valid size, time or truncation").arg(path));
                node.modified = *modified;
                node.truncated = recorded.value("truncated").toBool();
                expectedSizes.insert(entryName(path), *size);
            }
            state.files << node;
        }
        if (!readIdentity(manifest.value("identity").toObject(), state))
            return refuse(refusal, QStringLiteral("has no valid identity record"));
        return state;
    }

    // Entry name → size, for every path the manifest records as a file.
    QHash<QString, qint64> expectedSizes;

private:
    static std::optional<DeviceState> refuse(QString &refusal, const QString &reason)
    {
        refusal = QStringLiteral("the manifest %1 %2").arg(manifestName, reason);
        return std::nullopt;
    }

    // A whole number from `lowest` to `highest`; a JSON number is a double, so 1e300 or 2.5 is refused.
    static std::optional<qint64> wholeNumber(const QJsonValue &value, qint64 highest, qint64 lowest = 0)
    {
        const double number = value.toDouble();
        if (!value.isDouble() || number < static_cast<double>(lowest) || number > static_cast<double>(highest) ||
            number != std::floor(number))
            return std::nullopt;
        return static_cast<qint64>(number);
    }

    static bool readOrigin(const QJsonObject &manifest, bool withSoftware, CaptureOrigin &origin)
    {
        const QJsonValue tree = manifest.value("sourceTree");
        origin.toolVersion = manifest.value("toolVersion").toString();
        origin.captured = QDateTime::fromString(manifest.value("captured").toString(), Qt::ISODate);
        origin.sourceTree = tree.toString();
        origin.sanitized = manifest.value("sanitized").toBool();
        const bool valid = !origin.toolVersion.isEmpty() && origin.captured.isValid() &&
                           (tree.isNull() || (tree.isString() && !origin.sourceTree.isEmpty())) &&
                           manifest.value("sanitized").isBool();
        if (!valid || !withSoftware)
            return valid;
        const QJsonObject software = manifest.value("software").toObject();
        for (const char *key : {"firmwareVersion", "uiVersion", "rfSerial"})
            if (!software.value(QLatin1String(key)).isString())
                return false;
        origin.software =
            InstrumentSoftware{software.value("firmwareVersion").toString(), software.value("uiVersion").toString(),
                               software.value("rfSerial").toString()};
        return true;
    }

    static bool readIdentity(const QJsonObject &identity, DeviceState &state)
    {
        const QJsonObject tools = identity.value("tools").toObject();
        // Every tool must have a known kind below, so the count makes the list exact.
        if (!identity.value("toolsAsked").isBool() || tools.size() != identityToolPaths().size())
            return false;
        state.toolsAsked = identity.value("toolsAsked").toBool();
        for (const QString &path : identityToolPaths()) {
            DeviceNode tool{path, NodeKind::Missing, {}, 0, false};
            if (!nodeKindFromName(tools.value(path).toString(), tool.kind))
                return false;
            state.tools << tool;
        }
        QSet<QString> seen;
        for (const QJsonValue &value : identity.value("answers").toArray()) {
            const QJsonObject answer = value.toObject();
            const QString program = answer.value("program").toString();
            const QString argument = answer.value("argument").toString();
            const bool knownField =
                std::any_of(std::begin(rfsi::paths::identityFields), std::end(rfsi::paths::identityFields),
                            [&argument](const char *field) { return argument == QLatin1String(field); });
            if (!identityToolPaths().contains(program) || !knownField || !answer.value("output").isString() ||
                seen.contains(program + ' ' + argument))
                return false;
            seen.insert(program + ' ' + argument);
            state.answers.push_back({program, argument, answer.value("output").toString()});
        }
        return true;
    }
};

// Walks the tar stream: the manifest first, then only the files it records, each within the caps.
class EntryReader
{
public:
    explicit EntryReader(const QByteArray &stream) : reader(archive_read_new(), archive_read_free)
    {
        archive_read_support_format_tar(reader.get());
        opened = archive_read_open_memory(reader.get(), stream.constData(), static_cast<size_t>(stream.size())) ==
                 ARCHIVE_OK;
    }

    std::optional<DeviceState> read(QString &refusal)
    {
        if (!opened)
            return refuse(refusal, QStringLiteral("not a capture archive: %1").arg(archive_error_string(reader.get())));
        std::optional<DeviceState> state;
        ManifestReader manifest;
        QHash<QString, QByteArray> contents;
        qint64 total = 0;
        for (;;) {
            archive_entry *entry = nullptr;
            const int status = archive_read_next_header(reader.get(), &entry);
            if (status == ARCHIVE_EOF)
                break;
            if (status != ARCHIVE_OK)
                return refuse(refusal, QStringLiteral("the archive is corrupt after %1: %2")
                                           .arg(lastEntry.isEmpty() ? QStringLiteral("its start") : lastEntry,
                                                archive_error_string(reader.get())));
            const char *rawName = archive_entry_pathname(entry);
            const QString name = QString::fromUtf8(rawName ? rawName : "");
            lastEntry = QStringLiteral("entry '%1'").arg(name);
            if (name.isEmpty())
                return refuse(refusal, QStringLiteral("an entry has no name"));
            if (landsOutside(name))
                return refuse(refusal, lastEntry + " would land outside the device root");
            const QString type = typeRefusal(entry);
            if (!type.isEmpty())
                return refuse(refusal, lastEntry + ' ' + type);
            const qint64 size = archive_entry_size(entry);
            if (!state) {
                if (name != QLatin1String(manifestName))
                    return refuse(refusal,
                                  lastEntry +
                                      QStringLiteral(" comes first, where the manifest %1 belongs").arg(manifestName));
                if (size > manifestCap)
                    return refuse(refusal,
                                  lastEntry + QStringLiteral(" is larger than %1").arg(mebibytes(manifestCap)));
                QByteArray bytes;
                if (!readData(size, bytes, refusal))
                    return std::nullopt;
                state = manifest.read(bytes, refusal);
                if (!state)
                    return std::nullopt;
                continue;
            }
            if (!manifest.expectedSizes.contains(name))
                return refuse(refusal, lastEntry + " is not a file the manifest records");
            if (contents.contains(name))
                return refuse(refusal, lastEntry + " appears twice");
            if (size > captureFileCap)
                return refuse(refusal, lastEntry + QStringLiteral(" holds %1 bytes, more than the %2 a capture keeps "
                                                                  "of a file")
                                                       .arg(size)
                                                       .arg(mebibytes(captureFileCap)));
            total += size;
            if (total > captureTotalCap)
                return refuse(refusal,
                              lastEntry +
                                  QStringLiteral(" takes the archive past %1 in all").arg(mebibytes(captureTotalCap)));
            if (size != manifest.expectedSizes.value(name))
                return refuse(refusal, lastEntry + " does not have the size the manifest records");
            if (!readData(size, contents[name], refusal))
                return std::nullopt;
        }
        if (!state)
            return refuse(refusal, QStringLiteral("the archive holds no manifest %1").arg(manifestName));
        for (DeviceNode &file : state->files) {
            if (file.kind != NodeKind::File)
                continue;
            if (!contents.contains(entryName(file.path)))
                return refuse(
                    refusal,
                    QStringLiteral("entry '%1' is recorded in the manifest but missing").arg(entryName(file.path)));
            file.content = contents.value(entryName(file.path));
        }
        return state;
    }

private:
    static std::optional<DeviceState> refuse(QString &refusal, const QString &reason)
    {
        refusal = reason;
        return std::nullopt;
    }

    bool readData(qint64 size, QByteArray &bytes, QString &refusal)
    {
        bytes.resize(static_cast<int>(size));
        const la_ssize_t count = archive_read_data(reader.get(), bytes.data(), static_cast<size_t>(size));
        if (count == size)
            return true;
        refusal = lastEntry + QStringLiteral(" is truncated or corrupt: %1").arg(archive_error_string(reader.get()));
        return false;
    }

    ArchivePointer reader;
    bool opened = false;
    QString lastEntry;
};

} // namespace

std::optional<QByteArray> captureArchive(const DeviceState &state, QString &error)
{
    QByteArray archiveBytes;
    const ArchivePointer writer(archive_write_new(), archive_write_free);
    auto failed = [&writer, &error](const char *step) {
        error = QStringLiteral("cannot %1 the capture archive: %2").arg(step, archive_error_string(writer.get()));
        return std::nullopt;
    };
    // No time in the gzip header: two captures of an unchanged device differ only in the manifest.
    if (archive_write_add_filter_gzip(writer.get()) != ARCHIVE_OK ||
        archive_write_set_filter_option(writer.get(), "gzip", "timestamp", nullptr) != ARCHIVE_OK ||
        archive_write_set_format_pax_restricted(writer.get()) != ARCHIVE_OK ||
        archive_write_set_bytes_in_last_block(writer.get(), 1) != ARCHIVE_OK ||
        archive_write_open(writer.get(), &archiveBytes, nullptr, appendToByteArray, nullptr) != ARCHIVE_OK)
        return failed("start");
    const QByteArray manifest = QJsonDocument(manifestJson(state)).toJson();
    // The identity tools' answers are kept whole, so a tool that prints megabytes could make a
    // manifest that no reader takes: such a capture is not made at all.
    if (manifest.size() > manifestCap) {
        error = QStringLiteral("cannot make the capture: the identity tools' answers take its manifest to %1 "
                               "bytes, more than the %2 a capture holds")
                    .arg(manifest.size())
                    .arg(mebibytes(manifestCap));
        return std::nullopt;
    }
    if (!addEntry(writer.get(), QLatin1String(manifestName), manifest, state.origin.captured.toSecsSinceEpoch()))
        return failed("write the manifest into");
    for (const DeviceNode &file : state.files) // sorted by path
        if (file.kind == NodeKind::File && !addEntry(writer.get(), entryName(file.path), file.content, file.modified))
            return failed("write a file into");
    if (archive_write_close(writer.get()) != ARCHIVE_OK)
        return failed("finish");
    return archiveBytes;
}

std::optional<DeviceState> readCaptureAt(const QString &path, bool &isFolder, QString &error)
{
    QString reason;
    const int fd = openInput(path, true, isFolder, reason);
    if (fd < 0) {
        error = QStringLiteral("cannot read %1: %2").arg(path, reason);
        return std::nullopt;
    }
    std::optional<QByteArray> stream;
    if (!isFolder) // a device root opens a tree's folders itself
        stream = decompressedStream(fd, reason);
    ::close(fd);
    std::optional<DeviceState> state = stream ? EntryReader(*stream).read(reason) : std::nullopt;
    if (!state && !isFolder)
        error = QStringLiteral("refused the capture %1: %2").arg(path, reason);
    return state;
}
