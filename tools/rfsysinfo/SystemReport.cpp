#include "SystemReport.h"

#include <rfSystem_Info.h>

#include <QJsonArray>

#include <algorithm>
#include <functional>

const QString serialPlaceholder = QStringLiteral("<serial>");
const char *const temperatureLabels[4] = {"P", "M", "Y", "D"};

namespace {

// Answers that are the library's markers, never serial numbers, and so are never redacted elsewhere.
const QStringList markerTexts = {"", "NONE", "r", "SERIALNOTSET", "RFSERIAL"};

// The twelve inventory slots, keyed by the inventory info file's own key names.
struct InventoryEntry
{
    const char *key;
    const char *label;
    bool serial;
};
const InventoryEntry inventoryEntries[] = {
    {"DPB_HardwareSetName", "DPB hardware set", false},
    {"DPB_HardwareSetId", "DPB hardware set id", false},
    {"DPB_Revision", "DPB revision", false},
    {"DPB_SerialNumber", "DPB serial number", true},
    {"DPB_ManufactureDate", "DPB manufactured", false},
    {"DPB_CalibrationDate", "DPB calibrated", false},
    {"DPB_MinimumPower", "DPB minimum power", false},
    {"DPB_CriticalTemp", "DPB critical temperature", false},
    {"DPB_PcieEndpoints", "DPB PCIe endpoints", false},
    {"DPB_ParentSerialNumber", "DPB parent serial number", true},
    {"TOP_ProductName", "TOP product name", false},
    {"TOP_ProductSerialNumber", "TOP product serial number", true},
};

constexpr int fpgaBankCount = 15;
// The library names DSPs 0..15 and CPRI DSPs 0..9 at most.
constexpr int highestDspIndex = 15;
constexpr int cpriDspCapacity = 10;

void addLine(ReportSection &section, const QString &label, const QString &text, bool serial = false)
{
    section.lines.push_back({label, text, serial});
}

void addValue(ReportSection &section, const QString &key, const QString &label, const QString &text,
              bool serial = false)
{
    addLine(section, label, text, serial);
    section.json.insert(key, text);
    if (serial)
        section.serialKeys << key;
}

ReportSection identitySection(rfSystemInfo &info, const ReportOptions &options)
{
    ReportSection section{"identity", "Identity", {}, {}, {}};
    addValue(section, "model", "Model", info.getSystemModel());
    addValue(section, "serialNumber", "Serial number", info.getSystemSerial(), true);
    addValue(section, "firmwareVersion", "Firmware version", info.checkSystemFirmwareVersion());
    addValue(section, "uiVersion", "UI version", info.checkSystemUIVersion());
    addValue(section, "rfSerial", "RF serial", info.checkSystemRfSerial(), true);
    section.json.insert("identityToolsRun", options.identityToolsRun);
    addLine(section, "Identity tools",
            options.identityToolsRun ? "run" : "not run: they belong to a copied tree (--allow-tools runs them)");
    return section;
}

ReportSection inventorySection(rfSystemInfo &info)
{
    ReportSection section{"inventory", "Inventory", {}, {}, {}};
    for (int slot = 0; slot < static_cast<int>(std::size(inventoryEntries)); ++slot) {
        const InventoryEntry &entry = inventoryEntries[slot];
        addValue(section, entry.key, entry.label, QString::fromStdString(info.getDpbRfSysInfoFromFile(slot, false)),
                 entry.serial);
    }
    return section;
}

ReportSection rfModulesSection(rfSystemInfo &info)
{
    ReportSection section{"rf", "RF modules", {}, {}, {}};
    addValue(section, "summary", "Revisions (YRO/Mixer/DNC)", info.checkRFModuleRevision());
    const struct
    {
        const char *key;
        const char *label;
        int revision;
        std::string text;
    } modules[] = {
        {"yro", "YRO", info.getYroModuleRevision(), info.getYroModuleStringRevision()},
        {"mixer", "Mixer", info.getMixerModuleRevision(), info.getMixerModuStringRevision()},
        {"dnc", "DNC", info.getDncModuleRevision(), info.getDncModuleStringRevision()},
    };
    for (const auto &module : modules) {
        const QString text = QString::fromStdString(module.text);
        addLine(section, module.label, QStringLiteral("%1 (%2)").arg(module.revision).arg(text));
        section.json.insert(module.key, QJsonObject{{"revision", module.revision}, {"text", text}});
    }
    return section;
}

ReportSection fpgaSection(rfSystemInfo &info)
{
    ReportSection section{"fpga", "FPGA banks", {}, {}, {}};
    const bool loaded = info.loadDpbSysmtemInfo() == 0;
    section.json.insert("boardDescriptionLoaded", loaded);
    addLine(section, "Board description", loaded ? "loaded" : "missing or not valid JSON (versions default to 1000)");
    QJsonObject banks;
    for (int bank = 0; bank < fpgaBankCount; ++bank) {
        const QString key = QString::fromStdString(info.fpgaBankKeys[bank]);
        const QString version = info.getFpgaVersionrfSystemInfo(key);
        addLine(section, QStringLiteral("Bank %1").arg(bank), version);
        banks.insert(key, version);
    }
    section.json.insert("banks", banks);
    return section;
}

// A section of DSP images: the active count, and the name and version of each active image that the
// library can name (`limit` at most).
ReportSection dspImagesSection(const QString &name, const QString &title, const QString &imageLabel, int count,
                               int limit, const std::function<QString(int)> &nameOf,
                               const std::function<QString(int)> &versionOf)
{
    ReportSection section{name, title, {}, {}, {}};
    addLine(section, QStringLiteral("Active %1s").arg(imageLabel), QString::number(count));
    section.json.insert("activeCount", count);
    QJsonArray images;
    for (int index = 0; index < std::min(count, limit); ++index) {
        const QString imageName = nameOf(index);
        const QString version = versionOf(index);
        addLine(section, QStringLiteral("%1 %2").arg(imageLabel).arg(index),
                QStringLiteral("%1 (version %2)").arg(imageName, version));
        images.append(QJsonObject{{"index", index}, {"name", imageName}, {"version", version}});
    }
    section.json.insert("images", images);
    return section;
}

ReportSection dspSection(rfSystemInfo &info)
{
    return dspImagesSection(
        "dsp", "DSP images", "DSP", info.getDspActiveCount(), highestDspIndex + 1,
        [&info](int index) { return info.checkDspString(index); },
        [&info](int index) { return info.checkDspVersion(index); });
}

ReportSection cpriDspSection(rfSystemInfo &info)
{
    return dspImagesSection(
        "cpri", "CPRI DSP images", "CPRI DSP", info.getCpriDspActiveCount(), cpriDspCapacity,
        [&info](int index) { return info.checkCpriDspString(index); },
        [&info](int index) { return info.checkCpriDspVersion(index); });
}

// The readings, taken back out of the report "<P>(P)/<M>(M)\n<Y>(Y)/<D>(D)" by their labels.
QStringList temperatureReadings(const QString &report)
{
    QStringList readings;
    int from = 0;
    for (const char *label : temperatureLabels) {
        const QString marker = QStringLiteral("(%1)").arg(QLatin1String(label));
        const int at = report.indexOf(marker, from);
        if (at < 0)
            return {};
        readings << report.mid(from, at - from);
        from = at + marker.size() + 1; // the "/" or line feed after each label
    }
    return readings;
}

ReportSection temperatureSection(rfSystemInfo &info)
{
    ReportSection section{"temperature", "Temperature", {}, {}, {}};
    const QString report = info.checkSystemTemperature();
    section.json.insert("report", report);
    const QStringList readings = temperatureReadings(report);
    QJsonObject byLabel;
    for (int i = 0; i < readings.size(); ++i) {
        addLine(section, QStringLiteral("Sensor %1").arg(QLatin1String(temperatureLabels[i])), readings[i]);
        byLabel.insert(temperatureLabels[i], readings[i]);
    }
    section.json.insert("readings", byLabel);
    return section;
}

ReportSection calibrationSection(rfSystemInfo &info)
{
    ReportSection section{"calibration", "Calibration files", {}, {}, {}};
    addValue(section, "flatness", "Flatness (DNC/Low/High)", info.checkFlatnessFile());
    addValue(section, "dncDac", "DNC DAC (1/2)", info.checkDncDacFile());
    addValue(section, "yroDac", "YRO DAC (low/high)", info.checkYroDacFile());
    addValue(section, "yroSpur", "YRO spur (low/high)", info.checkYroSpurFile());
    addValue(section, "basicFreqCal", "Basic frequency cal", info.checkBasicFreqCalFile());
    addValue(section, "baseHighFreqCal", "High frequency cal", info.checkBaseHighFreqCalFile());
    addValue(section, "baseLowFreqCal", "Low frequency cal", info.checkBaseLowFreqCalFile());
    addValue(section, "dncFreqCal", "DNC frequency cal", info.checkDncFreqCalFile());
    addValue(section, "thirdOffset", "Third amp offset", info.checkThirdOffsetFile());
    return section;
}

QJsonValue replacedIn(const QJsonValue &value, const QStringList &serials)
{
    if (value.isString()) {
        QString text = value.toString();
        for (const QString &serial : serials)
            text.replace(serial, serialPlaceholder);
        return text;
    }
    if (value.isObject()) {
        QJsonObject object = value.toObject();
        for (auto member = object.begin(); member != object.end(); ++member)
            *member = replacedIn(*member, serials);
        return object;
    }
    if (value.isArray()) {
        QJsonArray array = value.toArray();
        for (auto element = array.begin(); element != array.end(); ++element)
            *element = replacedIn(*element, serials);
        return array;
    }
    return value;
}

} // namespace

namespace {

using Collector = ReportSection (*)(rfSystemInfo &, const ReportOptions &);

// The sections in report order, by the name --section and the JSON document use.
const std::pair<const char *, Collector> sections[] = {
    {"identity", identitySection},
    {"inventory", [](rfSystemInfo &info, const ReportOptions &) { return inventorySection(info); }},
    {"rf", [](rfSystemInfo &info, const ReportOptions &) { return rfModulesSection(info); }},
    {"fpga", [](rfSystemInfo &info, const ReportOptions &) { return fpgaSection(info); }},
    {"dsp", [](rfSystemInfo &info, const ReportOptions &) { return dspSection(info); }},
    {"cpri", [](rfSystemInfo &info, const ReportOptions &) { return cpriDspSection(info); }},
    {"temperature", [](rfSystemInfo &info, const ReportOptions &) { return temperatureSection(info); }},
    {"calibration", [](rfSystemInfo &info, const ReportOptions &) { return calibrationSection(info); }},
};

} // namespace

QStringList reportSectionNames()
{
    QStringList names;
    for (const auto &[name, collector] : sections)
        names << QLatin1String(name);
    return names;
}

QVector<ReportSection> collectReport(rfSystemInfo &info, const ReportOptions &options)
{
    QVector<ReportSection> report;
    for (const auto &[name, collect] : sections) {
        if (options.sections.isEmpty() || options.sections.contains(QLatin1String(name)))
            report << collect(info, options);
    }
    return report;
}

bool isMarkerText(const QString &text)
{
    return markerTexts.contains(text);
}

QStringList serialNumbersIn(const QVector<ReportSection> &report)
{
    QStringList serials;
    for (const ReportSection &section : report)
        for (const ReportLine &line : section.lines)
            if (line.serial && !isMarkerText(line.text))
                serials << line.text;
    return serials;
}

void sanitizeReport(QVector<ReportSection> &report)
{
    // A serial's value may appear inside other answers too (a DSP name, a board name): it goes
    // everywhere. Markers are not serials and stay.
    QStringList serials = serialNumbersIn(report);
    for (ReportSection &section : report) {
        for (ReportLine &line : section.lines)
            if (line.serial)
                line.text = serialPlaceholder;
        for (const QString &key : section.serialKeys)
            section.json.insert(key, serialPlaceholder);
    }
    // Longest first, so that a serial that contains another is replaced whole.
    std::sort(serials.begin(), serials.end(), [](const QString &a, const QString &b) { return a.size() > b.size(); });
    for (ReportSection &section : report) {
        for (ReportLine &line : section.lines)
            line.text = replacedIn(line.text, serials).toString();
        section.json = replacedIn(section.json, serials).toObject();
    }
}
