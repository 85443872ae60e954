#include "read/ReportInput.h"

#include "DeviceState.h"
#include "model/ReportJson.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QVector>

#include <unistd.h>

namespace {

constexpr int reportTimeoutMs = 120000; // both identity tools may hang for their 16 s

// The regular file at `path`, when it holds at most jsonInputCap bytes.
std::optional<QByteArray> boundedRead(const QString &path, QString &refusal)
{
    bool isFolder = false;
    const int fd = openInput(path, false, isFolder, refusal);
    if (fd < 0)
        return std::nullopt;
    QByteArray bytes;
    if (!readUpTo(fd, jsonInputCap, bytes))
        refusal = QStringLiteral("it is larger than %1 KiB").arg(jsonInputCap >> 10);
    ::close(fd);
    return refusal.isEmpty() ? std::optional<QByteArray>(bytes) : std::nullopt;
}

// The first key that stands twice in one object, if any. Qt's parser keeps one of the two silently.
std::optional<QString> duplicatedKey(const QByteArray &json)
{
    struct Level
    {
        bool object;
        bool expectingKey;
        QSet<QString> keys;
    };
    QVector<Level> levels;
    for (int at = 0; at < json.size(); ++at) {
        const char c = json[at];
        if (c == '"') {
            int end = at + 1;
            while (end < json.size() && json[end] != '"')
                end += json[end] == '\\' ? 2 : 1;
            if (!levels.isEmpty() && levels.back().object && levels.back().expectingKey) {
                // Decoded, so that an escaped spelling of a key counts as the key.
                const QString key =
                    QJsonDocument::fromJson("[" + json.mid(at, end - at + 1) + "]").array().at(0).toString();
                if (levels.back().keys.contains(key))
                    return key;
                levels.back().keys.insert(key);
                levels.back().expectingKey = false;
            }
            at = end;
        } else if (c == '{' || c == '[') {
            levels.push_back({c == '{', c == '{', {}});
        } else if ((c == '}' || c == ']') && !levels.isEmpty()) {
            levels.pop_back();
        } else if (c == ',' && !levels.isEmpty() && levels.back().object) {
            levels.back().expectingKey = true;
        }
    }
    return std::nullopt;
}

QString typeName(const QJsonValue &value)
{
    return value.isString() ? QStringLiteral("a text")
           : value.isBool() ? QStringLiteral("true or false")
                            : QStringLiteral("a number");
}

class ShapeCheck
{
public:
    explicit ShapeCheck(JsonInputUse use) : use(use) {}

    bool value(const QJsonValue &value, const QJsonValue &shape, const QString &place)
    {
        if (shape.isObject())
            return object(value, shape.toObject(), place);
        if (shape.isArray())
            return imageList(value, place);
        if (value.type() == shape.type())
            return true;
        if (use == JsonInputUse::Profile && value.isArray() && !value.toArray().isEmpty()) {
            for (const QJsonValue &accepted : value.toArray())
                if (accepted.type() != shape.type())
                    return refuse(place, QStringLiteral("lists a value that is not %1").arg(typeName(shape)));
            return true;
        }
        return refuse(place, QStringLiteral("must be %1%2")
                                 .arg(typeName(shape), use == JsonInputUse::Profile
                                                           ? QStringLiteral(" or a list of accepted values")
                                                           : QString()));
    }

    bool object(const QJsonValue &value, const QJsonObject &shape, const QString &place)
    {
        if (!value.isObject())
            return refuse(place, QStringLiteral("must be an object"));
        const QJsonObject members = value.toObject();
        for (auto member = members.begin(); member != members.end(); ++member) {
            const QString inner = place + '.' + member.key();
            if (member.key() == QLatin1String("identityToolsRun") && place == QLatin1String("identity"))
                continue;
            if (!shape.contains(member.key()))
                return refuse(inner, QStringLiteral("is no key of the report"));
            if (!this->value(member.value(), shape.value(member.key()), inner))
                return false;
        }
        return true;
    }

    // DSP and CPRI DSP images: objects with their index and any of name and version.
    bool imageList(const QJsonValue &value, const QString &place)
    {
        if (!value.isArray())
            return refuse(place, QStringLiteral("must be a list of images"));
        QSet<int> indices;
        const QJsonArray list = value.toArray();
        for (int i = 0; i < list.size(); ++i) {
            const QString inner = QStringLiteral("%1[%2]").arg(place).arg(i);
            const QJsonObject image = list.at(i).toObject();
            const double index = image.value("index").toDouble(-1);
            if (!list.at(i).isObject() || !image.value("index").isDouble() || index < 0 || index > 99 ||
                index != static_cast<int>(index) || indices.contains(static_cast<int>(index)))
                return refuse(inner, QStringLiteral("must be an image with an index of its own (0 to 99)"));
            indices.insert(static_cast<int>(index));
            const QJsonObject shape{{"index", 0}, {"name", ""}, {"version", ""}};
            for (auto member = image.begin(); member != image.end(); ++member)
                if (member.key() != QLatin1String("index") &&
                    !(shape.contains(member.key())
                          ? this->value(member.value(), shape.value(member.key()), inner + '.' + member.key())
                          : refuse(inner + '.' + member.key(), QStringLiteral("is no key of an image"))))
                    return false;
        }
        return true;
    }

    bool refuse(const QString &place, const QString &reason)
    {
        refusal = place + ' ' + reason;
        return false;
    }

    QString refusal;

private:
    JsonInputUse use;
};

// This program again, for the JSON report of a capture, a tree or this instrument.
std::optional<QJsonObject> reportOf(const QStringList &arguments, QString &error)
{
    QProcess self;
    self.start(QCoreApplication::applicationFilePath(), QStringList{"--json"} + arguments);
    if (!self.waitForFinished(reportTimeoutMs) || self.exitStatus() != QProcess::NormalExit || self.exitCode() != 0) {
        self.kill();
        error = QString::fromUtf8(self.readAllStandardError()).trimmed().remove(QRegularExpression("^rfsysinfo: "));
        if (error.isEmpty())
            error = QStringLiteral("no report: %1").arg(self.errorString());
        return std::nullopt;
    }
    return QJsonDocument::fromJson(self.readAllStandardOutput()).object();
}

} // namespace

std::optional<QJsonObject> readJsonInput(const QString &path, QString &refusal)
{
    const std::optional<QByteArray> bytes = boundedRead(path, refusal);
    if (!bytes)
        return std::nullopt;
    if (const int nul = bytes->indexOf('\0'); nul >= 0) {
        refusal = QStringLiteral("it holds a NUL byte at byte %1").arg(nul);
        return std::nullopt;
    }
    if (QString::fromUtf8(*bytes).toUtf8() != *bytes) {
        refusal = QStringLiteral("it is not valid UTF-8");
        return std::nullopt;
    }
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(*bytes, &error);
    if (error.error != QJsonParseError::NoError) {
        refusal = QStringLiteral("it is not JSON: %1 at byte %2").arg(error.errorString()).arg(error.offset);
        return std::nullopt;
    }
    if (!document.isObject()) {
        refusal = QStringLiteral("it is not a JSON object");
        return std::nullopt;
    }
    if (const std::optional<QString> key = duplicatedKey(*bytes)) {
        refusal = QStringLiteral("it holds the key '%1' twice in one object").arg(*key);
        return std::nullopt;
    }
    return document.object();
}

bool hasReportShape(const QJsonObject &document, JsonInputUse use, QString &refusal)
{
    const QJsonObject shape = reportSections(emptyReport());
    ShapeCheck check(use);
    for (auto section = document.begin(); section != document.end(); ++section) {
        const QString name = section.key();
        bool valid = true;
        if (jsonHeaderKeys().contains(name))
            continue;
        if (use == JsonInputUse::Profile && name == QLatin1String("profile"))
            valid = section->isString() || check.refuse(name, QStringLiteral("must be a text that names the release"));
        else if (use == JsonInputUse::Profile && name == QLatin1String("temperature"))
            valid = check.refuse(name, QStringLiteral("holds readings, which are no property of a release"));
        else if (!shape.contains(name))
            valid = check.refuse(name, QStringLiteral("is no section of the report"));
        else
            valid = check.object(section.value(), shape.value(name).toObject(), name);
        if (!valid) {
            refusal = check.refusal;
            return false;
        }
    }
    return true;
}

std::optional<DiffSide> readDiffSide(const QString &path, bool allowTools, QString &error)
{
    DiffSide side{"instrument", path, {}, {}};
    std::optional<QJsonObject> document;
    if (path.isEmpty()) {
        document = reportOf({}, error);
    } else {
        bool isFolder = false;
        const int fd = openInput(path, true, isFolder, error);
        if (fd < 0)
            return std::nullopt;
        char magic[2] = {};
        const bool gzip =
            !isFolder && ::pread(fd, magic, sizeof magic, 0) == 2 && magic[0] == '\x1f' && magic[1] == '\x8b';
        ::close(fd);
        if (isFolder || gzip) {
            side.kind = isFolder ? "tree" : "capture";
            document = reportOf(QStringList{"--root", path} +
                                    (isFolder && allowTools ? QStringList{"--allow-tools"} : QStringList()),
                                error);
        } else {
            side.kind = "report";
            QString refusal;
            document = readJsonInput(path, refusal);
            if (!document || !hasReportShape(*document, JsonInputUse::Report, refusal)) {
                error = QStringLiteral("refused the report %1: %2").arg(path, refusal);
                return std::nullopt;
            }
        }
    }
    if (!document)
        return std::nullopt;
    side.report = reportFromJson(*document);
    side.captured = document->value("capture").toObject().value("captured").toString();
    return side;
}
