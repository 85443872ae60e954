#include "ReportCheck.h"

#include "ReportFacts.h"
#include "devicePaths.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>

namespace {

using rfsi::paths::fallbackModel;
using rfsi::paths::fallbackSerial;
constexpr char missingVersion[] = "1000";

class Findings
{
public:
    // One finding for `items` when there are any: "<what>: item, item".
    void add(const char *id, bool error, const QString &what, const QStringList &items)
    {
        if (!items.isEmpty())
            list.push_back({QLatin1String(id), error, what + QStringLiteral(": ") + items.join(QStringLiteral(", "))});
    }
    QVector<Finding> list;
};

void checkIdentity(const QVector<ReportSection> &report, Findings &findings)
{
    QStringList fallbacks;
    if (reportValue(report, QStringLiteral("identity/model")) == QLatin1String(fallbackModel))
        fallbacks << QStringLiteral("model %1").arg(fallbackModel);
    if (reportValue(report, QStringLiteral("identity/serialNumber")) == QLatin1String(fallbackSerial))
        fallbacks << QStringLiteral("serial number %1").arg(fallbackSerial);
    findings.add("identity.fallback", false, QStringLiteral("identity tools missing or silent, fallback used for"),
                 fallbacks);
}

void checkInventory(const QVector<ReportSection> &report, Findings &findings)
{
    QStringList missing, keyless;
    const QJsonObject inventory = reportValue(report, QStringLiteral("inventory")).toObject();
    for (const QString &key : inventory.keys()) {
        if (inventory.value(key) == QLatin1String("NONE"))
            missing << key;
        else if (inventory.value(key) == QLatin1String("r"))
            keyless << key;
    }
    findings.add("inventory.missing", true, QStringLiteral("inventory NONE (file missing or value empty)"), missing);
    findings.add("inventory.key-missing", true, QStringLiteral("inventory r (key missing from the file)"), keyless);
}

void checkRfRevision(const QVector<ReportSection> &report, Findings &findings)
{
    const QString summary = reportValue(report, QStringLiteral("rf/summary")).toString();
    if (summary == QLatin1String("NONE") || summary == QLatin1String("r"))
        findings.add("rf.revision-missing", true,
                     summary == QLatin1String("r") ? QStringLiteral("RF revision r (RF_REVISION missing from the file)")
                                                   : QStringLiteral("RF revision NONE (file missing or value empty)"),
                     {QStringLiteral("/storage/RFHW_Revision.info")});
}

// Each active image that lacks a name or a version; for DSPs also the FPGA banks they use that have
// no version.
void checkImages(const QVector<ReportSection> &report, Findings &findings)
{
    QStringList banksWithoutVersion;
    for (const char *section : {"dsp", "cpri"}) {
        const bool cpri = QLatin1String(section) == QLatin1String("cpri");
        QStringList incomplete;
        for (const QJsonValue &value : reportValue(report, QLatin1String(section) + "/images").toArray()) {
            const QJsonObject image = value.toObject();
            const QString index = QString::number(image.value("index").toInt());
            if (image.value("name").toString().isEmpty())
                incomplete << index + QStringLiteral(" (no name)");
            if (image.value("version").toString().isEmpty())
                incomplete << index + QStringLiteral(" (no version)");
            if (!cpri && image.value("version") == QLatin1String(missingVersion))
                banksWithoutVersion << QStringLiteral("bank %1 (DSP %1)").arg(index);
        }
        findings.add(cpri ? "cpri.incomplete" : "dsp.incomplete", false,
                     cpri ? QStringLiteral("active CPRI DSPs without a name or version")
                          : QStringLiteral("active DSPs without a name or version"),
                     incomplete);
    }
    if (!reportValue(report, QStringLiteral("fpga/boardDescriptionLoaded")).toBool())
        findings.add("fpga.board-description", true,
                     QStringLiteral("board description not loaded (missing or not JSON)"),
                     {QStringLiteral("/bin/DpbJsonInfo.json")});
    findings.add("fpga.bank-missing", true, QStringLiteral("FPGA banks of active DSPs without a version (1000)"),
                 banksWithoutVersion);
}

void checkTemperatures(const QVector<ReportSection> &report, Findings &findings)
{
    const std::optional<double> critical = criticalTemperatureOf(report);
    QStringList unavailable, hot;
    for (const TemperatureReading &reading : temperatureReadingsOf(report)) {
        if (!reading.celsius)
            unavailable << QStringLiteral("%1 (%2)").arg(reading.sensor, reading.text);
        else if (critical && *reading.celsius >= *critical)
            hot << QStringLiteral("%1 %2").arg(reading.sensor, reading.text);
    }
    findings.add("temperature.unavailable", false, QStringLiteral("temperature sensors without a reading"),
                 unavailable);
    if (critical)
        findings.add("temperature.critical", true,
                     QStringLiteral("sensors at or above the critical temperature %1 °C").arg(*critical), hot);
}

void checkCalibration(const QVector<ReportSection> &report, const CheckOptions &options, Findings &findings)
{
    QStringList missing, unreadable, old;
    for (const CalibrationFile &file : calibrationFilesOf(report)) {
        if (!file.present)
            missing << file.path;
        else if (file.dated && !file.readable)
            unreadable << file.path;
        const std::optional<QDate> date = file.readable ? leadingDate(file.firstLine) : std::nullopt;
        if (date && options.maxCalibrationAgeDays >= 0 && date->daysTo(options.today) > options.maxCalibrationAgeDays)
            old << QStringLiteral("%1 (%2)").arg(file.path, date->toString(Qt::ISODate));
    }
    findings.add("calibration.missing", true, QStringLiteral("calibration files missing"), missing);
    findings.add("calibration.unreadable", true, QStringLiteral("calibration files present but unreadable"),
                 unreadable);
    findings.add("calibration.old", false,
                 QStringLiteral("calibration older than %1 days").arg(options.maxCalibrationAgeDays), old);
}

int countOf(const QVector<Finding> &findings, bool error)
{
    return static_cast<int>(std::count_if(findings.begin(), findings.end(),
                                          [error](const Finding &finding) { return finding.error == error; }));
}

QString plural(int count, const char *word)
{
    return QStringLiteral("%1 %2%3").arg(count).arg(QLatin1String(word)).arg(count == 1 ? "" : "s");
}

} // namespace

QVector<Finding> checkReport(const QVector<ReportSection> &report, const CheckOptions &options)
{
    Findings findings;
    checkIdentity(report, findings);
    checkInventory(report, findings);
    checkRfRevision(report, findings);
    checkImages(report, findings);
    checkTemperatures(report, findings);
    checkCalibration(report, options, findings);
    return findings.list;
}

bool checkPasses(const QVector<Finding> &findings, bool strict)
{
    return countOf(findings, true) == 0 && (!strict || findings.isEmpty());
}

QByteArray checkText(const ReportHeader &header, const QVector<Finding> &findings, bool strict)
{
    QString text;
    for (const Finding &finding : findings)
        text += QStringLiteral("%1 %2 %3\n")
                    .arg(QString::fromLatin1(finding.error ? "error" : "warning").leftJustified(7),
                         finding.id.leftJustified(23), finding.message);
    text +=
        QStringLiteral("rfsysinfo %1 check of %2: %3, %4 and %5%6\n")
            .arg(header.version, header.deviceTree.isEmpty() ? QStringLiteral("this instrument") : header.deviceTree,
                 QLatin1String(checkPasses(findings, strict) ? "PASS" : "FAIL"),
                 plural(countOf(findings, true), "error"), plural(countOf(findings, false), "warning"),
                 QLatin1String(strict ? " (strict: warnings fail)" : ""));
    return text.toUtf8();
}

QByteArray checkJson(const ReportHeader &header, const QVector<Finding> &findings, bool strict)
{
    QJsonArray list;
    for (const Finding &finding : findings)
        list.append(QJsonObject{
            {"id", finding.id}, {"severity", finding.error ? "error" : "warning"}, {"message", finding.message}});
    QJsonObject document = jsonHeader(header);
    document.insert("check", QJsonObject{{"verdict", checkPasses(findings, strict) ? "pass" : "fail"},
                                         {"strict", strict},
                                         {"findings", list}});
    return QJsonDocument(document).toJson(QJsonDocument::Indented);
}
