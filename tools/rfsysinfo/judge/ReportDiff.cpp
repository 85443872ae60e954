#include "judge/ReportDiff.h"

#include "model/ReportJson.h"

#include <QJsonArray>
#include <QMap>

#include <algorithm>

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

} // namespace

void sanitizeSides(DiffSide &before, DiffSide &after)
{
    QStringList serials = serialNumbersIn(before.report) + serialNumbersIn(after.report);
    serials.removeDuplicates();
    for (DiffSide *side : {&before, &after}) {
        sanitizeReport(side->report, serials);
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
        flatten({}, reportSections(before.report).value(section), beforeLeaves);
        flatten({}, reportSections(after.report).value(section), afterLeaves);
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
