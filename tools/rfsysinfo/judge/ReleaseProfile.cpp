#include "judge/ReleaseProfile.h"

#include "model/ReportJson.h"
#include "model/ReportModel.h"
#include "read/ReportInput.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

namespace {

bool accepts(const QJsonValue &expected, const QJsonValue &actual)
{
    return expected.isArray() ? expected.toArray().contains(actual) : expected == actual;
}

QJsonObject imageWithIndex(const QJsonArray &images, int index)
{
    for (const QJsonValue &image : images)
        if (image.toObject().value("index").toInt(-1) == index)
            return image.toObject();
    return {};
}

void compare(const QString &section, const QString &key, const QJsonValue &expected, const QJsonValue &actual,
             QVector<ReleaseMismatch> &mismatches)
{
    if (expected.isObject()) {
        const QJsonObject members = expected.toObject();
        for (auto member = members.begin(); member != members.end(); ++member)
            compare(section, key.isEmpty() ? member.key() : key + '.' + member.key(), member.value(),
                    actual.toObject().value(member.key()), mismatches);
    } else if (key.endsWith(QLatin1String("images"))) {
        for (const QJsonValue &image : expected.toArray()) {
            const int index = image.toObject().value("index").toInt();
            const QJsonObject found = imageWithIndex(actual.toArray(), index);
            for (const char *field : {"name", "version"})
                if (image.toObject().contains(QLatin1String(field)))
                    compare(section, QStringLiteral("%1[%2].%3").arg(key).arg(index).arg(QLatin1String(field)),
                            image.toObject().value(QLatin1String(field)), found.value(QLatin1String(field)),
                            mismatches);
        }
    } else if (!accepts(expected, actual)) {
        mismatches.push_back({section, key, expected, actual});
    }
}

} // namespace

std::optional<ReleaseProfile> readReleaseProfile(const QString &path, QString &refusal)
{
    const std::optional<QJsonObject> document = readJsonInput(path, refusal);
    if (!document || !hasReportShape(*document, JsonInputUse::Profile, refusal))
        return std::nullopt;
    ReleaseProfile profile{document->value("profile").toString(QFileInfo(path).fileName()), {}};
    for (auto section = document->begin(); section != document->end(); ++section)
        if (section.key() != QLatin1String("profile") && !jsonHeaderKeys().contains(section.key())) {
            QJsonObject members = section->toObject();
            members.remove("identityToolsRun");
            profile.expected.insert(section.key(), members);
        }
    return profile;
}

QVector<ReleaseMismatch> releaseMismatches(const ReleaseProfile &profile, const QJsonObject &sections)
{
    QVector<ReleaseMismatch> mismatches;
    for (const QString &section : reportSectionNames())
        if (profile.expected.contains(section))
            compare(section, {}, profile.expected.value(section), sections.value(section), mismatches);
    return mismatches;
}
