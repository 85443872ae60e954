#include "judge/ReportCheck.h"

#include "devicePaths.h"
#include "model/ReportJson.h"

#include <QJsonArray>

#include <algorithm>
#include <functional>

namespace {

using namespace rfsi::paths;

class Findings
{
public:
    // One finding when `found`, with `data` as its fields.
    void add(const char *id, bool error, bool found, const QJsonObject &data)
    {
        if (found)
            list.push_back({QLatin1String(id), error, data});
    }
    // The common shape: a finding for the items, when there are any, under `field`.
    void add(const char *id, bool error, const QStringList &items, const char *field)
    {
        add(id, error, !items.isEmpty(), QJsonObject{{QLatin1String(field), QJsonArray::fromStringList(items)}});
    }
    QVector<Finding> list;
};

void checkCapture(const Report &report, Findings &findings)
{
    findings.add("capture.truncated", false, report.source.truncatedFiles, "files");
}

void checkIdentity(const Identity &identity, Findings &findings)
{
    QJsonObject data;
    if (identity.model == QLatin1String(fallbackModel))
        data.insert("model", identity.model);
    if (identity.serialNumber == QLatin1String(fallbackSerial))
        data.insert("serialNumber", identity.serialNumber);
    findings.add("identity.fallback", false, !data.isEmpty(), data);
}

void checkInventory(const QVector<InventoryValue> &inventory, Findings &findings)
{
    QStringList missing, keyless;
    for (const InventoryValue &value : inventory) {
        if (value.text == QLatin1String(marker::none))
            missing << value.key;
        else if (value.text == QLatin1String(marker::keyMissing))
            keyless << value.key;
    }
    findings.add("inventory.missing", true, missing, "keys");
    findings.add("inventory.key-missing", true, keyless, "keys");
}

void checkRfRevision(const RfModules &rf, Findings &findings)
{
    findings.add("rf.revision-missing", true, !rf.recorded() || rf.summary == QLatin1String(marker::keyMissing),
                 QJsonObject{{"file", rfRevision}, {"summary", rf.summary}});
}

// Each active image that lacks a name or a version.
void checkImages(const char *id, const DspImages &images, Findings &findings)
{
    QJsonArray data;
    for (const DspImage &image : images.images) {
        for (const auto &[missing, text] :
             {std::pair{image.name.isEmpty(), "name"}, {image.version.isEmpty(), "version"}})
            if (missing)
                data.append(QJsonObject{{"index", image.index}, {"missing", text}});
    }
    findings.add(id, false, !data.isEmpty(), QJsonObject{{"images", data}});
}

// The board description, and the FPGA banks that the active DSPs take their versions from.
void checkFpga(const Report &report, Findings &findings)
{
    findings.add("fpga.board-description", true, !report.fpga.boardDescriptionLoaded,
                 QJsonObject{{"file", boardDescription}});
    QJsonArray data;
    for (const DspImage &image : report.dsp.images)
        if (image.version == QLatin1String(marker::noVersion))
            data.append(QJsonObject{{"bank", image.fpgaBank}, {"dsp", image.index}});
    findings.add("fpga.bank-missing", true, !data.isEmpty(), QJsonObject{{"banks", data}});
}

void checkTemperatures(const Report &report, const CheckOptions &options, Findings &findings)
{
    const std::optional<TemperatureLimit> limit = temperatureLimit(report, options);
    QJsonArray unavailable, hot;
    for (const TemperatureReading &reading : report.temperature.readings) {
        if (!reading.celsius)
            unavailable.append(QJsonObject{{"sensor", reading.sensor}, {"text", reading.text}});
        else if (limit && *reading.celsius >= limit->celsius)
            hot.append(QJsonObject{{"sensor", reading.sensor}, {"celsius", *reading.celsius}});
    }
    findings.add("temperature.unavailable", false, !unavailable.isEmpty(), QJsonObject{{"sensors", unavailable}});
    findings.add("temperature.limit-unknown", false, !limit,
                 QJsonObject{{"key", "DPB_CriticalTemp"}, {"value", report.inventoryText("DPB_CriticalTemp")}});
    if (limit)
        findings.add("temperature.critical", true, !hot.isEmpty(),
                     QJsonObject{{"limitCelsius", limit->celsius}, {"limitSource", limit->source}, {"sensors", hot}});
}

void checkCalibration(const Report &report, const CheckOptions &options, Findings &findings)
{
    QStringList missing, unreadable;
    QJsonArray old;
    for (const CalibrationEntry &entry : report.calibration)
        for (const CalibrationFile &file : entry.files) {
            if (!file.present)
                missing << file.path;
            else if (file.dated && !file.readable)
                unreadable << file.path;
            const std::optional<QDate> date = file.readable ? leadingDate(file.firstLine) : std::nullopt;
            // A file exactly the given age is still within it.
            if (date && options.maxCalibrationAgeDays >= 0 &&
                date->daysTo(options.today) > options.maxCalibrationAgeDays)
                old.append(QJsonObject{{"file", file.path}, {"date", date->toString(Qt::ISODate)}});
        }
    findings.add("calibration.missing", true, missing, "files");
    findings.add("calibration.unreadable", true, unreadable, "files");
    findings.add("calibration.old", false, !old.isEmpty(),
                 QJsonObject{{"maxAgeDays", options.maxCalibrationAgeDays}, {"files", old}});
}

// Each key where the unit differs from its release profile, one finding a key.
void checkRelease(const Report &report, const CheckOptions &options, Findings &findings)
{
    if (!options.release)
        return;
    const ReleaseProfile judged = options.hardwareOnly ? hardwareOf(*options.release) : *options.release;
    for (const ReleaseMismatch &mismatch : releaseMismatches(judged, reportSections(report)))
        findings.add("release.mismatch", true, true,
                     QJsonObject{{"section", mismatch.section},
                                 {"key", mismatch.key},
                                 {"expected", mismatch.expected},
                                 {"actual", mismatch.actual.isUndefined() ? QJsonValue() : mismatch.actual}});
}

// The section a finding belongs to: a mismatch's own, else its id's first word ("capture" for all).
QString sectionOf(const Finding &finding)
{
    return finding.id == QLatin1String("release.mismatch") ? finding.data.value("section").toString()
                                                           : finding.id.section(QLatin1Char('.'), 0, 0);
}

} // namespace

std::optional<TemperatureLimit> temperatureLimit(const Report &report, const CheckOptions &options)
{
    if (const std::optional<double> inventory = numberIn(report.inventoryText("DPB_CriticalTemp")))
        return TemperatureLimit{*inventory, "inventory"};
    if (options.criticalTemperature)
        return TemperatureLimit{*options.criticalTemperature, "option"};
    return std::nullopt;
}

QVector<Finding> checkReport(const Report &report, const CheckOptions &options)
{
    Findings findings;
    if (options.hardwareOnly) {
        checkRelease(report, options, findings);
        return findings.list;
    }
    checkCapture(report, findings);
    checkIdentity(report.identity, findings);
    checkInventory(report.inventory, findings);
    checkRfRevision(report.rf, findings);
    checkImages("dsp.incomplete", report.dsp, findings);
    checkImages("cpri.incomplete", report.cpri, findings);
    checkFpga(report, findings);
    checkTemperatures(report, options, findings);
    checkCalibration(report, options, findings);
    checkRelease(report, options, findings);
    QVector<Finding> judged;
    for (const Finding &finding : findings.list)
        if (sectionOf(finding) == QLatin1String("capture") || options.sections.contains(sectionOf(finding)))
            judged.push_back(finding);
    return judged;
}

void sanitizeFindings(QVector<Finding> &findings, const QStringList &serials)
{
    std::function<QJsonValue(const QJsonValue &, bool)> withheld = [&](const QJsonValue &value, bool serialField) {
        if (value.isArray()) {
            QJsonArray values;
            for (const QJsonValue &element : value.toArray())
                values.append(withheld(element, serialField));
            return QJsonValue(values);
        }
        if (value.isObject()) {
            QJsonObject members = value.toObject();
            for (auto member = members.begin(); member != members.end(); ++member)
                *member = withheld(*member, false);
            return QJsonValue(members);
        }
        return value.isString() && (serialField || serials.contains(value.toString())) ? QJsonValue(serialPlaceholder)
                                                                                       : value;
    };
    for (Finding &finding : findings) {
        // A release's value for a serial field, and the unit's, whatever they hold.
        const bool serialField =
            isSerialField(finding.data.value("section").toString(), finding.data.value("key").toString());
        for (auto member = finding.data.begin(); member != finding.data.end(); ++member)
            *member = withheld(*member, serialField && (member.key() == "expected" || member.key() == "actual"));
    }
}

int countOf(const QVector<Finding> &findings, bool error)
{
    return static_cast<int>(std::count_if(findings.begin(), findings.end(),
                                          [error](const Finding &finding) { return finding.error == error; }));
}

bool checkPasses(const QVector<Finding> &findings, bool strict)
{
    return countOf(findings, true) == 0 && (!strict || findings.isEmpty());
}

int countOf(const QVector<Finding> &findings, const QString &id)
{
    return static_cast<int>(
        std::count_if(findings.begin(), findings.end(), [&id](const Finding &finding) { return finding.id == id; }));
}
