#include "judge/ReleaseProfile.h"

#include "model/ReportJson.h"
#include "model/ReportModel.h"
#include "read/ReportInput.h"

#include <QFileInfo>
#include <QJsonArray>

#include <algorithm>

namespace {

bool accepts(const QJsonValue &expected, const QJsonValue &actual)
{
    return expected.isArray() ? expected.toArray().contains(actual) : expected == actual;
}

} // namespace

std::optional<ReleaseProfile> readReleaseProfile(const QString &path, QString &refusal)
{
    const std::optional<QJsonObject> document = readJsonInput(path, refusal);
    if (!document || !hasReportShape(*document, JsonInputUse::Profile, refusal))
        return std::nullopt;
    ReleaseProfile profile{document->value("profile").toString(QFileInfo(path).fileName()), {}};
    for (auto section = document->begin(); section != document->end(); ++section)
        if (section.key() != QLatin1String("profile") && !jsonHeaderKeys().contains(section.key()))
            profile.expected.insert(section.key(), section.value());
    return profile;
}

ReleaseProfile hardwareOf(const ReleaseProfile &profile)
{
    ReleaseProfile hardware{profile.name, {}};
    QJsonObject revisions;
    const QJsonObject inventory = profile.expected.value("inventory").toObject();
    for (auto key = inventory.begin(); key != inventory.end(); ++key)
        if (key.key().endsWith(QLatin1String("_Revision")))
            revisions.insert(key.key(), key.value());
    if (!revisions.isEmpty())
        hardware.expected.insert("inventory", revisions);
    if (profile.expected.contains("rf"))
        hardware.expected.insert("rf", profile.expected.value("rf"));
    return hardware;
}

QVector<ReleaseMismatch> releaseMismatches(const ReleaseProfile &profile, const QJsonObject &sections)
{
    QVector<ReleaseMismatch> mismatches;
    for (const QString &section : reportSectionNames()) {
        if (!profile.expected.contains(section))
            continue;
        const QMap<QString, QJsonValue> expected = sectionValues(profile.expected.value(section));
        const QMap<QString, QJsonValue> actual = sectionValues(sections.value(section));
        QStringList keys = expected.keys();
        std::sort(keys.begin(), keys.end(), inReportOrder);
        for (const QString &key : keys) {
            const QJsonValue value = actual.value(key, QJsonValue(QJsonValue::Undefined));
            if (!accepts(expected.value(key), value))
                mismatches.push_back({section, key, expected.value(key), value});
        }
    }
    return mismatches;
}
