#include "ReportDiff.h"

#include "DeviceState.h"
#include "JsonInput.h"
#include "ReleaseProfile.h"
#include "ReportModel.h"
#include "ReportOutput.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>

#include <algorithm>
#include <functional>

#include <unistd.h>

namespace {

constexpr int reportTimeoutMs = 120000; // both identity tools may hang for their 16 s

// "images[2].name" before "images[10].name": runs of digits compare as numbers.
bool naturalLess(const QString &a, const QString &b)
{
    int i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (a[i].isDigit() && b[j].isDigit()) {
            const int startA = i, startB = j;
            while (i < a.size() && a[i].isDigit())
                ++i;
            while (j < b.size() && b[j].isDigit())
                ++j;
            const qlonglong numberA = a.mid(startA, i - startA).toLongLong();
            const qlonglong numberB = b.mid(startB, j - startB).toLongLong();
            if (numberA != numberB)
                return numberA < numberB;
        } else if (a[i] != b[j]) {
            return a[i] < b[j];
        } else {
            ++i, ++j;
        }
    }
    return a.size() - i < b.size() - j;
}

void flatten(const QString &key, const QJsonValue &value, QMap<QString, QJsonValue> &leaves)
{
    if (value.isObject()) {
        const QJsonObject members = value.toObject();
        for (auto member = members.begin(); member != members.end(); ++member)
            if (!(key.isEmpty() && member.key() == QLatin1String("identityToolsRun")))
                flatten(key.isEmpty() ? member.key() : key + '.' + member.key(), member.value(), leaves);
    } else if (value.isArray()) {
        for (const QJsonValue &image : value.toArray()) {
            const QJsonObject fields = image.toObject();
            for (auto field = fields.begin(); field != fields.end(); ++field)
                if (field.key() != QLatin1String("index"))
                    leaves.insert(
                        QStringLiteral("%1[%2].%3").arg(key).arg(fields.value("index").toInt()).arg(field.key()),
                        field.value());
        }
    } else {
        leaves.insert(key, value);
    }
}

QStringList serialNumbersIn(const QJsonObject &sections)
{
    QStringList serials;
    for (const QString &field : serialFields()) {
        const QString text =
            sections.value(field.section('/', 0, 0)).toObject().value(field.section('/', 1)).toString();
        if (!text.isEmpty() && !isMarkerText(text))
            serials << text;
    }
    return serials;
}

// Sections sanitized as the tool sanitizes a report: the serial fields, and every text that is one of
// `serials` as a whole.
void sanitizeSections(QJsonObject &sections, const QStringList &serials)
{
    std::function<QJsonValue(const QJsonValue &)> replaced = [&](const QJsonValue &value) -> QJsonValue {
        if (value.isString())
            return serials.contains(value.toString()) ? QJsonValue(serialPlaceholder) : value;
        if (value.isArray()) {
            QJsonArray array;
            for (const QJsonValue &element : value.toArray())
                array.append(replaced(element));
            return array;
        }
        if (!value.isObject())
            return value;
        QJsonObject object = value.toObject();
        for (auto member = object.begin(); member != object.end(); ++member)
            *member = replaced(*member);
        return object;
    };
    sections = replaced(sections).toObject();
    for (const QString &field : serialFields()) {
        QJsonObject section = sections.value(field.section('/', 0, 0)).toObject();
        if (section.contains(field.section('/', 1)))
            section.insert(field.section('/', 1), serialPlaceholder);
        if (!section.isEmpty())
            sections.insert(field.section('/', 0, 0), section);
    }
}

QJsonObject withoutHeader(QJsonObject document, QString &captured)
{
    captured = document.value("capture").toObject().value("captured").toString();
    for (const QString &key : jsonHeaderKeys())
        document.remove(key);
    return document;
}

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

QJsonObject sideJson(const DiffSide &side)
{
    return {{"kind", side.kind},
            {"name", side.name.isEmpty() ? QJsonValue() : side.name},
            {"captured", side.captured.isEmpty() ? QJsonValue() : side.captured}};
}

QString sideText(const DiffSide &side)
{
    if (side.kind == QLatin1String("instrument"))
        return QStringLiteral("this instrument");
    const QString kind = side.kind == QLatin1String("tree") ? QStringLiteral("device tree") : side.kind;
    return QStringLiteral("%1 %2%3").arg(
        kind, side.name, side.captured.isEmpty() ? QString() : QStringLiteral(" (captured %1)").arg(side.captured));
}

} // namespace

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
    side.sections = withoutHeader(*document, side.captured);
    return side;
}

void sanitizeSides(DiffSide &before, DiffSide &after)
{
    QStringList serials = serialNumbersIn(before.sections) + serialNumbersIn(after.sections);
    serials.removeDuplicates();
    for (DiffSide *side : {&before, &after}) {
        sanitizeSections(side->sections, serials);
        if (!side->name.isEmpty())
            side->name = sourcePlaceholder;
    }
}

QVector<Difference> reportDifferences(const DiffSide &before, const DiffSide &after, const QStringList &sections)
{
    QVector<Difference> differences;
    for (const QString &section : reportSectionNames()) {
        if (!sections.isEmpty() && !sections.contains(section))
            continue;
        QMap<QString, QJsonValue> beforeLeaves, afterLeaves;
        flatten({}, before.sections.value(section), beforeLeaves);
        flatten({}, after.sections.value(section), afterLeaves);
        QStringList keys = beforeLeaves.keys() + afterLeaves.keys();
        keys.removeDuplicates();
        std::sort(keys.begin(), keys.end(), naturalLess);
        for (const QString &key : keys) {
            const QJsonValue was = beforeLeaves.value(key, QJsonValue(QJsonValue::Undefined));
            const QJsonValue is = afterLeaves.value(key, QJsonValue(QJsonValue::Undefined));
            if (was != is)
                differences.push_back({section, key, was, is});
        }
    }
    return differences;
}

QByteArray diffText(const DiffSide &before, const DiffSide &after, const QVector<Difference> &differences)
{
    QString text;
    for (const Difference &difference : differences)
        text +=
            QStringLiteral("%1 %2: %3 -> %4\n")
                .arg(difference.section, difference.key, shownValue(difference.before), shownValue(difference.after));
    text += QStringLiteral("%1 between %2 and %3\n")
                .arg(differences.isEmpty()     ? QStringLiteral("no differences")
                     : differences.size() == 1 ? QStringLiteral("1 difference")
                                               : QStringLiteral("%1 differences").arg(differences.size()),
                     sideText(before), sideText(after));
    return text.toUtf8();
}

QByteArray diffJson(const DiffSide &before, const DiffSide &after, const QVector<Difference> &differences)
{
    QJsonArray list;
    for (const Difference &difference : differences)
        list.append(QJsonObject{{"section", difference.section},
                                {"key", difference.key},
                                {"before", difference.before.isUndefined() ? QJsonValue() : difference.before},
                                {"after", difference.after.isUndefined() ? QJsonValue() : difference.after}});
    const QJsonObject document{
        {"tool", "rfsysinfo"},
        {"version", QCoreApplication::applicationVersion()},
        {"diff", QJsonObject{{"before", sideJson(before)}, {"after", sideJson(after)}, {"differences", list}}}};
    return QJsonDocument(document).toJson(QJsonDocument::Indented);
}
