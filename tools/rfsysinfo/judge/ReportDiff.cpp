#include "judge/ReportDiff.h"

#include "model/ReportJson.h"

#include <QMap>

#include <algorithm>

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
        const QMap<QString, QJsonValue> beforeLeaves = sectionValues(reportSections(before.report).value(section));
        const QMap<QString, QJsonValue> afterLeaves = sectionValues(reportSections(after.report).value(section));
        QStringList keys = beforeLeaves.keys() + afterLeaves.keys();
        keys.removeDuplicates();
        std::sort(keys.begin(), keys.end(), inReportOrder);
        for (const QString &key : keys) {
            const QJsonValue was = beforeLeaves.value(key, QJsonValue(QJsonValue::Undefined));
            const QJsonValue is = afterLeaves.value(key, QJsonValue(QJsonValue::Undefined));
            if (was != is)
                differences.push_back({section, key, was, is});
        }
    }
    return differences;
}
