#include "ReportFacts.h"

#include "devicePaths.h"

#include <QJsonObject>
#include <QLocale>

namespace {

using namespace rfsi::paths;

// Which file each word of a presence report stands for, in the library's order.
const std::pair<const char *, std::vector<const char *>> presenceGroups[] = {
    {"flatness", {flatnessDnc, flatnessLow, flatnessHigh}},
    {"dncDac", {dncDac1, dncDac2}},
    {"yroDac", {yroDacLow, yroDacHigh}},
    {"yroSpur", {yroSpurLow, yroSpurHigh}},
};
const std::pair<const char *, const char *> datedFiles[] = {
    {"basicFreqCal", basicFreqCal}, {"baseHighFreqCal", baseHighFreqCal}, {"baseLowFreqCal", baseLowFreqCal},
    {"dncFreqCal", dncFreqCal},     {"thirdOffset", thirdOffset},
};

// "OK(first line)", "OK(NONE)" or "NONE(NONE)".
CalibrationFile datedFile(const QString &key, const QString &path, const QString &status)
{
    CalibrationFile file{key, path, status.startsWith(QLatin1String("OK(")), true, false, {}};
    file.firstLine = status.mid(status.indexOf('(') + 1).chopped(1);
    // A first line that reads NONE looks like an unreadable file: the library gives the same text.
    file.readable = file.present && file.firstLine != QLatin1String("NONE");
    return file;
}

} // namespace

QJsonValue reportValue(const QVector<ReportSection> &report, const QString &path)
{
    const QStringList names = path.split('/');
    for (const ReportSection &section : report) {
        if (section.name != names.first())
            continue;
        QJsonValue value = section.json;
        for (const QString &name : names.mid(1))
            value = value.toObject().value(name);
        return value;
    }
    return QJsonValue(QJsonValue::Undefined);
}

std::optional<double> numberIn(const QString &text)
{
    bool ok = false;
    const double number = QLocale::c().toDouble(text.trimmed(), &ok);
    return ok ? std::optional<double>(number) : std::nullopt;
}

std::optional<QDate> leadingDate(const QString &text)
{
    const QDate date = QDate::fromString(text.left(10), QStringLiteral("yyyy-MM-dd"));
    return date.isValid() ? std::optional<QDate>(date) : std::nullopt;
}

QVector<CalibrationFile> calibrationFilesOf(const QVector<ReportSection> &report)
{
    QVector<CalibrationFile> files;
    for (const auto &[key, paths] : presenceGroups) {
        const QStringList words = reportValue(report, QStringLiteral("calibration/") + key).toString().split('/');
        for (size_t i = 0; i < paths.size(); ++i) {
            const bool present = static_cast<int>(i) < words.size() && words[static_cast<int>(i)] == "OK";
            files.push_back({QLatin1String(key), QLatin1String(paths[i]), present, false, false, {}});
        }
    }
    for (const auto &[key, path] : datedFiles)
        files.push_back(datedFile(QLatin1String(key), QLatin1String(path),
                                  reportValue(report, QStringLiteral("calibration/") + key).toString()));
    return files;
}

QVector<TemperatureReading> temperatureReadingsOf(const QVector<ReportSection> &report)
{
    QVector<TemperatureReading> readings;
    const QJsonObject byLabel = reportValue(report, QStringLiteral("temperature/readings")).toObject();
    for (const char *sensor : temperatureLabels) {
        const QString text = byLabel.value(QLatin1String(sensor)).toString();
        readings.push_back({QLatin1String(sensor), text, numberIn(text)});
    }
    return readings;
}

std::optional<double> criticalTemperatureOf(const QVector<ReportSection> &report)
{
    return numberIn(reportValue(report, QStringLiteral("inventory/DPB_CriticalTemp")).toString());
}
