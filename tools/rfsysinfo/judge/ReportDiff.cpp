#include "judge/ReportDiff.h"

#include "model/ReportJson.h"

#include <QJsonArray>
#include <QMap>

#include <algorithm>
#include <functional>

namespace {

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

} // namespace

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
