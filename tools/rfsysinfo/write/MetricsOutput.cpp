#include "write/MetricsOutput.h"

#include <QDateTime>
#include <QLocale>

#include <algorithm>

namespace {

using Labels = QVector<QPair<QString, QString>>;

// A label value as the text exposition format requires: backslash, double quote and line feed
// escaped, so that no text of a file can end the value or the line.
QString escaped(QString value)
{
    return value.replace('\\', QLatin1String("\\\\"))
        .replace('"', QLatin1String("\\\""))
        .replace('\n', QLatin1String("\\n"));
}

// "DPB_HardwareSetName" as a label name: "dpb_hardware_set_name".
QString labelName(const QString &key)
{
    QString name;
    for (int i = 0; i < key.size(); ++i) {
        if (key[i].isUpper() && i > 0 && key[i - 1].isLower())
            name += '_';
        name += key[i].toLower();
    }
    return name;
}

QString number(double value)
{
    return QLocale::c().toString(value, 'g', 15);
}

class Families
{
public:
    // Starts a family: its help line and its type (every family here is a gauge).
    void family(const char *name, const char *help)
    {
        current = QLatin1String("rfsi_") + QLatin1String(name);
        text += QStringLiteral("# HELP %1 %2\n# TYPE %1 gauge\n").arg(current, QLatin1String(help));
    }

    // Labels in name order, as Prometheus and node_exporter write them.
    void sample(double value, Labels labels = {})
    {
        std::sort(labels.begin(), labels.end());
        QStringList pairs;
        for (const auto &[name, labelValue] : labels)
            pairs << QStringLiteral("%1=\"%2\"").arg(name, escaped(labelValue));
        text += current + (pairs.isEmpty() ? QString() : '{' + pairs.join(',') + '}') + ' ' + number(value) + '\n';
    }

    QString text;

private:
    QString current;
};

void identityAndInventoryMetrics(const Report &report, Families &out)
{
    const Identity &identity = report.identity;
    out.family("identity_info", "The product's identity as the library answers it; the value is always 1.");
    out.sample(1, {{"model", identity.model},
                   {"serial_number", identity.serialNumber},
                   {"firmware_version", identity.firmwareVersion},
                   {"ui_version", identity.uiVersion},
                   {"rf_serial", identity.rfSerial}});
    out.family("identity_tools_run", "Whether the identity tools were run for this report (1) or not (0).");
    out.sample(identity.toolsRun);
    out.family("inventory_info", "The board inventory, one label a value, with its markers; the value is always 1.");
    Labels inventory;
    for (const InventoryValue &value : report.inventory)
        inventory.push_back({labelName(value.key), value.text});
    std::sort(inventory.begin(), inventory.end());
    out.sample(1, inventory);
}

void rfAndFpgaMetrics(const Report &report, Families &out)
{
    out.family("rf_revision_info", "The RF revision summary and each module's revision text; the value is always 1.");
    Labels texts{{"summary", report.rf.summary}};
    for (const RfModule &module : report.rf.modules)
        texts.push_back({module.key, module.text});
    out.sample(1, texts);
    out.family("rf_module_revision", "Each RF module's hardware revision as a whole number.");
    for (const RfModule &module : report.rf.modules)
        out.sample(module.revision, {{"module", module.key}});
    out.family("board_description_loaded", "Whether the board description loaded (1) or not (0).");
    out.sample(report.fpga.boardDescriptionLoaded);
    out.family("fpga_bank_info", "Each FPGA bank's version text (1000: none); the value is always 1.");
    for (int bank = 0; bank < report.fpga.banks.size(); ++bank)
        out.sample(1, {{"bank", QString::number(bank)}, {"version", report.fpga.banks[bank].version}});
}

void imagesMetrics(const Report &report, Families &out)
{
    for (const bool cpri : {false, true}) {
        const DspImages &images = cpri ? report.cpri : report.dsp;
        out.family(cpri ? "cpri_dsp_active" : "dsp_active",
                   cpri ? "The number of active CPRI DSPs." : "The number of active DSPs.");
        out.sample(images.activeCount);
        out.family(cpri ? "cpri_dsp_image_info" : "dsp_image_info",
                   cpri ? "Each active CPRI DSP's image name and version; the value is always 1."
                        : "Each active DSP's image name and version; the value is always 1.");
        for (const DspImage &image : images.images)
            out.sample(1, {{"index", QString::number(image.index)}, {"name", image.name}, {"version", image.version}});
    }
}

void temperaturesMetrics(const Report &report, const CheckOptions &options, Families &out)
{
    if (const std::optional<TemperatureLimit> limit = temperatureLimit(report, options)) {
        out.family("critical_temperature_celsius",
                   "The critical temperature the check judges by, from the inventory or from --critical-temperature.");
        out.sample(limit->celsius, {{"source", QLatin1String(limit->source)}});
    }
    out.family("temperature_celsius", "Each DPB sensor's temperature; a sensor without a reading is left out.");
    for (const TemperatureReading &reading : report.temperature.readings)
        if (reading.celsius)
            out.sample(*reading.celsius, {{"sensor", reading.sensor}});
}

void calibrationMetrics(const Report &report, Families &out)
{
    out.family("calibration_file_present", "Whether each calibration file is present (1) or missing (0).");
    for (const CalibrationEntry &entry : report.calibration)
        for (const CalibrationFile &file : entry.files)
            out.sample(file.present, {{"file", file.path}});
    out.family("calibration_date_seconds",
               "The date a dated calibration file's first line begins with, as Unix time (midnight UTC).");
    for (const CalibrationEntry &entry : report.calibration)
        for (const CalibrationFile &file : entry.files)
            if (const std::optional<QDate> date = file.readable ? leadingDate(file.firstLine) : std::nullopt)
                out.sample(static_cast<double>(QDateTime(*date, QTime(0, 0), Qt::UTC).toSecsSinceEpoch()),
                           {{"file", file.path}});
}

// Whether the unit carries its release, and in how many keys it does not.
void releaseMetrics(const QVector<Finding> &findings, const CheckOptions &options, Families &out)
{
    if (!options.release)
        return;
    const int mismatches = countOf(findings, QStringLiteral("release.mismatch"));
    out.family("release_conformant", "Whether the unit carries its release profile (1) or not (0).");
    out.sample(mismatches == 0, {{"profile", options.release->name}});
    out.family("release_mismatches", "The keys in which the unit differs from its release profile.");
    out.sample(mismatches, {{"profile", options.release->name}});
}

void checkMetrics(const QVector<Finding> &findings, bool strict, Families &out)
{
    out.family("check_finding", "The check's findings by id and severity: how many there are of each.");
    QStringList ids;
    for (const Finding &finding : findings)
        if (!ids.contains(finding.id)) {
            ids << finding.id;
            out.sample(countOf(findings, finding.id),
                       {{"id", finding.id}, {"severity", QLatin1String(finding.error ? "error" : "warning")}});
        }
    out.family("check_findings", "The check's findings by severity.");
    for (bool error : {true, false})
        out.sample(
            std::count_if(findings.begin(), findings.end(), [error](const Finding &f) { return f.error == error; }),
            {{"severity", QLatin1String(error ? "error" : "warning")}});
    out.family("check_ok", "Whether the check passes (1) or fails (0).");
    out.sample(checkPasses(findings, strict));
}

} // namespace

QByteArray metricsReport(const Report &report, const QVector<Finding> &findings, const CheckOptions &options)
{
    Families out;
    identityAndInventoryMetrics(report, out);
    rfAndFpgaMetrics(report, out);
    imagesMetrics(report, out);
    temperaturesMetrics(report, options, out);
    calibrationMetrics(report, out);
    checkMetrics(findings, options.strict, out);
    releaseMetrics(findings, options, out);
    out.family("report_timestamp_seconds", "When this report was collected, as Unix time.");
    out.sample(static_cast<double>(report.collected.toSecsSinceEpoch()));
    return out.text.toUtf8();
}
