#include "MetricsOutput.h"

#include "ReportFacts.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
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

    void sample(double value, const Labels &labels = {})
    {
        QStringList pairs;
        for (const auto &[name, labelValue] : labels)
            pairs << QStringLiteral("%1=\"%2\"").arg(name, escaped(labelValue));
        text += current + (pairs.isEmpty() ? QString() : '{' + pairs.join(',') + '}') + ' ' + number(value) + '\n';
    }

    QString text;

private:
    QString current;
};

QString textOf(const QVector<ReportSection> &report, const QString &path)
{
    return reportValue(report, path).toString();
}

void identityAndInventory(const QVector<ReportSection> &report, Families &out)
{
    out.family("identity_info", "The product's identity as the library answers it; the value is always 1.");
    out.sample(1, {{"model", textOf(report, "identity/model")},
                   {"serial_number", textOf(report, "identity/serialNumber")},
                   {"firmware_version", textOf(report, "identity/firmwareVersion")},
                   {"ui_version", textOf(report, "identity/uiVersion")},
                   {"rf_serial", textOf(report, "identity/rfSerial")}});
    out.family("identity_tools_run", "Whether the identity tools were run for this report (1) or not (0).");
    out.sample(reportValue(report, "identity/identityToolsRun").toBool());
    out.family("inventory_info", "The board inventory, one label a value, with its markers; the value is always 1.");
    Labels inventory;
    const QJsonObject values = reportValue(report, "inventory").toObject();
    for (auto value = values.begin(); value != values.end(); ++value)
        inventory.push_back({labelName(value.key()), value.value().toString()});
    out.sample(1, inventory);
    if (const std::optional<double> critical = criticalTemperatureOf(report)) {
        out.family("critical_temperature_celsius", "The DPB's critical temperature, from the inventory.");
        out.sample(*critical);
    }
}

void rfAndFpga(const QVector<ReportSection> &report, Families &out)
{
    out.family("rf_revision_info", "The RF revision summary and each module's revision text; the value is always 1.");
    out.sample(1, {{"summary", textOf(report, "rf/summary")},
                   {"yro", textOf(report, "rf/yro/text")},
                   {"mixer", textOf(report, "rf/mixer/text")},
                   {"dnc", textOf(report, "rf/dnc/text")}});
    out.family("rf_module_revision", "Each RF module's hardware revision as a whole number.");
    for (const char *module : {"yro", "mixer", "dnc"})
        out.sample(reportValue(report, QStringLiteral("rf/%1/revision").arg(module)).toInt(),
                   {{"module", QLatin1String(module)}});
    out.family("board_description_loaded", "Whether the board description loaded (1) or not (0).");
    out.sample(reportValue(report, "fpga/boardDescriptionLoaded").toBool());
    out.family("fpga_bank_info", "Each FPGA bank's version text (1000: none); the value is always 1.");
    for (int bank = 0; bank < 15; ++bank)
        out.sample(1, {{"bank", QString::number(bank)},
                       {"version", textOf(report, QStringLiteral("fpga/banks/FPGA_BANK_%1_VER").arg(bank))}});
}

void images(const QVector<ReportSection> &report, Families &out)
{
    for (const char *section : {"dsp", "cpri"}) {
        const bool cpri = QLatin1String(section) == QLatin1String("cpri");
        out.family(cpri ? "cpri_dsp_active" : "dsp_active",
                   cpri ? "The number of active CPRI DSPs." : "The number of active DSPs.");
        out.sample(reportValue(report, QLatin1String(section) + "/activeCount").toInt());
        out.family(cpri ? "cpri_dsp_image_info" : "dsp_image_info",
                   cpri ? "Each active CPRI DSP's image name and version; the value is always 1."
                        : "Each active DSP's image name and version; the value is always 1.");
        for (const QJsonValue &value : reportValue(report, QLatin1String(section) + "/images").toArray()) {
            const QJsonObject image = value.toObject();
            out.sample(1, {{"index", QString::number(image.value("index").toInt())},
                           {"name", image.value("name").toString()},
                           {"version", image.value("version").toString()}});
        }
    }
}

void temperaturesAndCalibration(const QVector<ReportSection> &report, Families &out)
{
    out.family("temperature_celsius", "Each DPB sensor's temperature; a sensor without a reading is left out.");
    for (const TemperatureReading &reading : temperatureReadingsOf(report))
        if (reading.celsius)
            out.sample(*reading.celsius, {{"sensor", reading.sensor}});
    const QVector<CalibrationFile> files = calibrationFilesOf(report);
    out.family("calibration_file_present", "Whether each calibration file is present (1) or missing (0).");
    for (const CalibrationFile &file : files)
        out.sample(file.present, {{"file", file.path}});
    out.family("calibration_date_seconds",
               "The date a dated calibration file's first line begins with, as Unix time (midnight UTC).");
    for (const CalibrationFile &file : files)
        if (const std::optional<QDate> date = file.readable ? leadingDate(file.firstLine) : std::nullopt)
            out.sample(static_cast<double>(QDateTime(*date, QTime(0, 0), Qt::UTC).toSecsSinceEpoch()),
                       {{"file", file.path}});
}

} // namespace

QByteArray metricsReport(const QVector<ReportSection> &report, const QVector<Finding> &findings, bool strict)
{
    Families out;
    identityAndInventory(report, out);
    rfAndFpga(report, out);
    images(report, out);
    temperaturesAndCalibration(report, out);
    out.family("check_findings", "The check's findings by severity.");
    for (bool error : {true, false})
        out.sample(
            std::count_if(findings.begin(), findings.end(), [error](const Finding &f) { return f.error == error; }),
            {{"severity", QLatin1String(error ? "error" : "warning")}});
    out.family("check_ok", "Whether the check passes (1) or fails (0).");
    out.sample(checkPasses(findings, strict));
    return out.text.toUtf8();
}
