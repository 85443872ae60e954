#include "judge/ReportCheck.h"

#include "devicePaths.h"
#include "model/ReportJson.h"

#include <QJsonArray>

#include <algorithm>

namespace {

using namespace rfsi::paths;

class Findings
{
public:
    explicit Findings(const QStringList &withheldSerials) : withheld(withheldSerials) {}

    // A value of the report as a finding may show it.
    QString shown(const QString &value) const { return withheld.contains(value) ? serialPlaceholder : value; }
    QJsonValue shown(const QJsonValue &value, bool serialField) const
    {
        if (value.isArray()) {
            QJsonArray values;
            for (const QJsonValue &element : value.toArray())
                values.append(shown(element, serialField));
            return values;
        }
        if (!value.isString() || withheld.isEmpty())
            return value;
        return serialField ? QJsonValue(serialPlaceholder) : QJsonValue(shown(value.toString()));
    }

    // One finding for `items` when there are any: "<what>: item, item", with `data` as its fields.
    void add(const char *id, bool error, const QString &what, const QStringList &items, const QJsonObject &data)
    {
        if (!items.isEmpty())
            list.push_back(
                {QLatin1String(id), error, what + QStringLiteral(": ") + items.join(QStringLiteral(", ")), data});
    }
    // The common shape: the items are the data, under `field`.
    void add(const char *id, bool error, const QString &what, const QStringList &items, const char *field)
    {
        add(id, error, what, items, QJsonObject{{QLatin1String(field), QJsonArray::fromStringList(items)}});
    }
    QVector<Finding> list;

private:
    const QStringList withheld;
};

void checkCapture(const Report &report, Findings &findings)
{
    findings.add("capture.truncated", false,
                 QStringLiteral("files cut short by the capture, what is reported of them cannot be trusted"),
                 report.source.truncatedFiles, "files");
}

void checkIdentity(const Identity &identity, Findings &findings)
{
    QStringList fallbacks;
    QJsonObject data;
    if (identity.model == QLatin1String(fallbackModel)) {
        fallbacks << QStringLiteral("model %1").arg(fallbackModel);
        data.insert("model", identity.model);
    }
    if (identity.serialNumber == QLatin1String(fallbackSerial)) {
        fallbacks << QStringLiteral("serial number %1").arg(fallbackSerial);
        data.insert("serialNumber", identity.serialNumber);
    }
    findings.add("identity.fallback", false, QStringLiteral("identity tools missing or silent, fallback used for"),
                 fallbacks, data);
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
    findings.add("inventory.missing", true, QStringLiteral("inventory NONE (file missing or value empty)"), missing,
                 "keys");
    findings.add("inventory.key-missing", true, QStringLiteral("inventory r (key missing from the file)"), keyless,
                 "keys");
}

void checkRfRevision(const RfModules &rf, Findings &findings)
{
    const bool keyMissing = rf.summary == QLatin1String(marker::keyMissing);
    if (!rf.recorded() || keyMissing)
        findings.add("rf.revision-missing", true,
                     keyMissing ? QStringLiteral("RF revision r (RF_REVISION missing from the file)")
                                : QStringLiteral("RF revision NONE (file missing or value empty)"),
                     {QLatin1String(rfRevision)}, QJsonObject{{"file", rfRevision}, {"summary", rf.summary}});
}

// Each active image that lacks a name or a version.
void checkImages(const char *id, const QString &what, const DspImages &images, Findings &findings)
{
    QStringList incomplete;
    QJsonArray data;
    for (const DspImage &image : images.images) {
        for (const auto &[missing, text] :
             {std::pair{image.name.isEmpty(), "name"}, {image.version.isEmpty(), "version"}})
            if (missing) {
                incomplete << QStringLiteral("%1 (no %2)").arg(image.index).arg(QLatin1String(text));
                data.append(QJsonObject{{"index", image.index}, {"missing", text}});
            }
    }
    findings.add(id, false, what, incomplete, QJsonObject{{"images", data}});
}

// The board description, and the FPGA banks that the active DSPs take their versions from.
void checkFpga(const Report &report, Findings &findings)
{
    if (!report.fpga.boardDescriptionLoaded)
        findings.add("fpga.board-description", true,
                     QStringLiteral("board description not loaded (missing or not JSON)"),
                     {QLatin1String(boardDescription)}, QJsonObject{{"file", boardDescription}});
    QStringList banks;
    QJsonArray data;
    for (const DspImage &image : report.dsp.images)
        if (image.version == QLatin1String(marker::noVersion)) {
            banks << QStringLiteral("bank %1 (DSP %2)").arg(image.fpgaBank).arg(image.index);
            data.append(QJsonObject{{"bank", image.fpgaBank}, {"dsp", image.index}});
        }
    findings.add("fpga.bank-missing", true, QStringLiteral("FPGA banks of active DSPs without a version (1000)"), banks,
                 QJsonObject{{"banks", data}});
}

void checkTemperatures(const Report &report, const CheckOptions &options, Findings &findings)
{
    const std::optional<TemperatureLimit> limit = temperatureLimit(report, options);
    QStringList unavailable, hot;
    QJsonArray unavailableData, hotData;
    for (const TemperatureReading &reading : report.temperature.readings) {
        if (!reading.celsius) {
            unavailable << QStringLiteral("%1 (%2)").arg(reading.sensor, findings.shown(reading.text));
            unavailableData.append(QJsonObject{{"sensor", reading.sensor}, {"text", findings.shown(reading.text)}});
        } else if (limit && *reading.celsius >= limit->celsius) {
            hot << QStringLiteral("%1 %2").arg(reading.sensor, reading.text);
            hotData.append(QJsonObject{{"sensor", reading.sensor}, {"celsius", *reading.celsius}});
        }
    }
    findings.add("temperature.unavailable", false, QStringLiteral("temperature sensors without a reading"), unavailable,
                 QJsonObject{{"sensors", unavailableData}});
    if (!limit) {
        const QString text = findings.shown(report.inventoryText("DPB_CriticalTemp"));
        findings.add("temperature.limit-unknown", false,
                     QStringLiteral("no critical temperature to judge the sensors by (--critical-temperature gives "
                                    "one)"),
                     {QStringLiteral("DPB_CriticalTemp is '%1'").arg(text)},
                     QJsonObject{{"key", "DPB_CriticalTemp"}, {"value", text}});
        return;
    }
    findings.add("temperature.critical", true,
                 QStringLiteral("sensors at or above the critical temperature %1 °C").arg(limit->celsius), hot,
                 QJsonObject{{"limitCelsius", limit->celsius}, {"limitSource", limit->source}, {"sensors", hotData}});
}

void checkCalibration(const Report &report, const CheckOptions &options, Findings &findings)
{
    QStringList missing, unreadable, old;
    QJsonArray oldData;
    for (const CalibrationEntry &entry : report.calibration)
        for (const CalibrationFile &file : entry.files) {
            if (!file.present)
                missing << file.path;
            else if (file.dated && !file.readable)
                unreadable << file.path;
            const std::optional<QDate> date = file.readable ? leadingDate(file.firstLine) : std::nullopt;
            // A file exactly the given age is still within it.
            if (date && options.maxCalibrationAgeDays >= 0 &&
                date->daysTo(options.today) > options.maxCalibrationAgeDays) {
                old << QStringLiteral("%1 (%2)").arg(file.path, date->toString(Qt::ISODate));
                oldData.append(QJsonObject{{"file", file.path}, {"date", date->toString(Qt::ISODate)}});
            }
        }
    findings.add("calibration.missing", true, QStringLiteral("calibration files missing"), missing, "files");
    findings.add("calibration.unreadable", true, QStringLiteral("calibration files present but unreadable"), unreadable,
                 "files");
    findings.add("calibration.old", false,
                 QStringLiteral("calibration older than %1 days").arg(options.maxCalibrationAgeDays), old,
                 QJsonObject{{"maxAgeDays", options.maxCalibrationAgeDays}, {"files", oldData}});
}

// Each key where the unit differs from its release profile, one finding a key.
void checkRelease(const Report &report, const CheckOptions &options, Findings &findings)
{
    if (!options.release)
        return;
    for (const ReleaseMismatch &mismatch : releaseMismatches(*options.release, reportSections(report))) {
        // The profile's serial numbers are withheld with the unit's.
        const bool serialField = isSerialField(mismatch.section, mismatch.key);
        const QJsonValue expected = findings.shown(mismatch.expected, serialField);
        const QJsonValue actual = findings.shown(mismatch.actual, serialField);
        findings.list.push_back(
            {QStringLiteral("release.mismatch"), true,
             QStringLiteral("%1 %2 is %3, release %4 expects %5")
                 .arg(mismatch.section, mismatch.key, shownValue(actual), options.release->name, shownValue(expected)),
             QJsonObject{{"section", mismatch.section},
                         {"key", mismatch.key},
                         {"expected", expected},
                         {"actual", actual.isUndefined() ? QJsonValue() : actual}}});
    }
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
    Findings findings(options.withheldSerials);
    checkCapture(report, findings);
    checkIdentity(report.identity, findings);
    checkInventory(report.inventory, findings);
    checkRfRevision(report.rf, findings);
    checkImages("dsp.incomplete", QStringLiteral("active DSPs without a name or version"), report.dsp, findings);
    checkImages("cpri.incomplete", QStringLiteral("active CPRI DSPs without a name or version"), report.cpri, findings);
    checkFpga(report, findings);
    checkTemperatures(report, options, findings);
    checkCalibration(report, options, findings);
    checkRelease(report, options, findings);
    return findings.list;
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
