#include "model/ReportModel.h"

#include "devicePaths.h"

#include <rfSystem_Info.h>

#include <QLocale>

#include <algorithm>
#include <functional>
#include <vector>

const QString serialPlaceholder = QStringLiteral("<serial>");
const QString sourcePlaceholder = QStringLiteral("<withheld>");

namespace {

using namespace rfsi::paths;

const char *const temperatureLabels[4] = {"P", "M", "Y", "D"};

// The answers that are markers, never serial numbers: a field that holds one is never replaced.
const QStringList markerTexts = {"", marker::none, marker::keyMissing, fallbackSerial, marker::fixedRfSerial};

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

// Which file each word of a presence answer stands for, in the library's order; and the files whose
// first line the library reports.
struct CalibrationQuery
{
    const char *key;
    const char *label;
    QString (rfSystemInfo::*query)();
    std::vector<const char *> paths;
    bool dated;
};
const CalibrationQuery calibrationQueries[] = {
    {"flatness",
     "Flatness (DNC/Low/High)",
     &rfSystemInfo::checkFlatnessFile,
     {flatnessDnc, flatnessLow, flatnessHigh},
     false},
    {"dncDac", "DNC DAC (1/2)", &rfSystemInfo::checkDncDacFile, {dncDac1, dncDac2}, false},
    {"yroDac", "YRO DAC (low/high)", &rfSystemInfo::checkYroDacFile, {yroDacLow, yroDacHigh}, false},
    {"yroSpur", "YRO spur (low/high)", &rfSystemInfo::checkYroSpurFile, {yroSpurLow, yroSpurHigh}, false},
    {"basicFreqCal", "Basic frequency cal", &rfSystemInfo::checkBasicFreqCalFile, {basicFreqCal}, true},
    {"baseHighFreqCal", "High frequency cal", &rfSystemInfo::checkBaseHighFreqCalFile, {baseHighFreqCal}, true},
    {"baseLowFreqCal", "Low frequency cal", &rfSystemInfo::checkBaseLowFreqCalFile, {baseLowFreqCal}, true},
    {"dncFreqCal", "DNC frequency cal", &rfSystemInfo::checkDncFreqCalFile, {dncFreqCal}, true},
    {"thirdOffset", "Third amp offset", &rfSystemInfo::checkThirdOffsetFile, {thirdOffset}, true},
};

Identity identityOf(rfSystemInfo &info, const ReportOptions &options)
{
    return {info.getSystemModel(),       info.getSystemSerial(),     info.checkSystemFirmwareVersion(),
            info.checkSystemUIVersion(), info.checkSystemRfSerial(), options.identityToolsRun};
}

QVector<InventoryValue> inventoryOf(rfSystemInfo &info)
{
    QVector<InventoryValue> values;
    for (int slot = 0; slot < static_cast<int>(std::size(inventoryEntries)); ++slot) {
        const InventoryEntry &entry = inventoryEntries[slot];
        values.push_back({QLatin1String(entry.key), QLatin1String(entry.label), entry.serial,
                          QString::fromStdString(info.getDpbRfSysInfoFromFile(slot, false))});
    }
    return values;
}

RfModules rfModulesOf(rfSystemInfo &info)
{
    return {info.checkRFModuleRevision(),
            {
                {"yro", "YRO", info.getYroModuleRevision(), QString::fromStdString(info.getYroModuleStringRevision())},
                {"mixer", "Mixer", info.getMixerModuleRevision(),
                 QString::fromStdString(info.getMixerModuStringRevision())},
                {"dnc", "DNC", info.getDncModuleRevision(), QString::fromStdString(info.getDncModuleStringRevision())},
            }};
}

FpgaBanks fpgaBanksOf(rfSystemInfo &info)
{
    FpgaBanks fpga;
    fpga.boardDescriptionLoaded = info.loadDpbSysmtemInfo() == 0;
    for (int bank = 0; bank < fpgaBankCount; ++bank) {
        const QString key = QString::fromStdString(info.fpgaBankKeys[bank]);
        fpga.banks.push_back({key, info.getFpgaVersionrfSystemInfo(key)});
    }
    return fpga;
}

// The active count, and the name and version of each active image the library can name (`limit` at
// most). A DSP's version is the version of the FPGA bank of its own index.
DspImages imagesOf(int count, int limit, bool fromFpgaBanks, const std::function<QString(int)> &nameOf,
                   const std::function<QString(int)> &versionOf)
{
    DspImages images{count, {}};
    for (int index = 0; index < std::min(count, limit); ++index)
        images.images.push_back({index, nameOf(index), versionOf(index), fromFpgaBanks ? index : -1});
    return images;
}

// "OK/NONE/OK": one word a file. "OK(first line)", "OK(NONE)" or "NONE(NONE)": one dated file.
CalibrationEntry calibrationOf(const CalibrationQuery &query, const QString &answer)
{
    CalibrationEntry entry{QLatin1String(query.key), QLatin1String(query.label), answer, {}};
    if (query.dated) {
        CalibrationFile file{QLatin1String(query.paths.front()), entry.answer.startsWith(QLatin1String("OK(")), true,
                             false, entry.answer.mid(entry.answer.indexOf('(') + 1).chopped(1)};
        // A first line that reads NONE looks like an unreadable file: the library gives the same text.
        file.readable = file.present && file.firstLine != QLatin1String(marker::none);
        entry.files << file;
        return entry;
    }
    const QStringList words = entry.answer.split('/');
    for (size_t i = 0; i < query.paths.size(); ++i) {
        const bool present = static_cast<int>(i) < words.size() && words[static_cast<int>(i)] == marker::present;
        entry.files.push_back({QLatin1String(query.paths[i]), present, false, false, {}});
    }
    return entry;
}

// Every text field of the report, for a change in place.
void forEachText(Report &report, const std::function<void(QString &)> &visit)
{
    Identity &identity = report.identity;
    for (QString *text : {&identity.model, &identity.serialNumber, &identity.firmwareVersion, &identity.uiVersion,
                          &identity.rfSerial, &report.rf.summary, &report.temperature.report})
        visit(*text);
    for (InventoryValue &value : report.inventory)
        visit(value.text);
    for (RfModule &module : report.rf.modules)
        visit(module.text);
    for (FpgaBank &bank : report.fpga.banks)
        visit(bank.version);
    for (DspImages *images : {&report.dsp, &report.cpri})
        for (DspImage &image : images->images) {
            visit(image.name);
            visit(image.version);
        }
    for (TemperatureReading &reading : report.temperature.readings)
        visit(reading.text);
    for (CalibrationEntry &entry : report.calibration) {
        visit(entry.answer);
        for (CalibrationFile &file : entry.files) {
            const QString before = file.firstLine;
            visit(file.firstLine);
            if (file.dated && file.firstLine != before)
                entry.answer = QStringLiteral("OK(%1)").arg(file.firstLine);
        }
    }
}

} // namespace

// The readings, taken out of the report "<P>(P)/<M>(M)\n<Y>(Y)/<D>(D)" by their labels.
Temperatures temperaturesIn(const QString &report)
{
    Temperatures temperatures{report, {}};
    int from = 0;
    QVector<TemperatureReading> readings;
    for (const char *label : temperatureLabels) {
        const QString marker = QStringLiteral("(%1)").arg(QLatin1String(label));
        const int at = report.indexOf(marker, from);
        if (at < 0)
            return temperatures;
        const QString text = report.mid(from, at - from);
        readings.push_back({QLatin1String(label), text, numberIn(text)});
        from = at + marker.size() + 1; // the "/" or line feed after each label
    }
    temperatures.readings = readings;
    return temperatures;
}

QString Report::inventoryText(const char *key) const
{
    for (const InventoryValue &value : inventory)
        if (value.key == QLatin1String(key))
            return value.text;
    return {};
}

QStringList reportSectionNames()
{
    return {"identity", "inventory", "rf", "fpga", "dsp", "cpri", "temperature", "calibration"};
}

Report collectReport(rfSystemInfo &info, const ReportOptions &options)
{
    Report report;
    for (const QString &name : reportSectionNames())
        if (options.sections.isEmpty() || options.sections.contains(name))
            report.sections << name;
    if (report.has("identity"))
        report.identity = identityOf(info, options);
    if (report.has("inventory"))
        report.inventory = inventoryOf(info);
    if (report.has("rf"))
        report.rf = rfModulesOf(info);
    if (report.has("fpga"))
        report.fpga = fpgaBanksOf(info);
    if (report.has("dsp"))
        report.dsp = imagesOf(
            info.getDspActiveCount(), highestDspIndex + 1, true,
            [&info](int index) { return info.checkDspString(index); },
            [&info](int index) { return info.checkDspVersion(index); });
    if (report.has("cpri"))
        report.cpri = imagesOf(
            info.getCpriDspActiveCount(), cpriDspCapacity, false,
            [&info](int index) { return info.checkCpriDspString(index); },
            [&info](int index) { return info.checkCpriDspVersion(index); });
    if (report.has("temperature"))
        report.temperature = temperaturesIn(info.checkSystemTemperature());
    if (report.has("calibration"))
        for (const CalibrationQuery &query : calibrationQueries)
            report.calibration << calibrationOf(query, (info.*query.query)());
    return report;
}

Report emptyReport()
{
    Report report;
    report.sections = reportSectionNames();
    for (const InventoryEntry &entry : inventoryEntries)
        report.inventory.push_back({QLatin1String(entry.key), QLatin1String(entry.label), entry.serial, {}});
    report.rf.modules = {{"yro", "YRO", 0, {}}, {"mixer", "Mixer", 0, {}}, {"dnc", "DNC", 0, {}}};
    for (int bank = 0; bank < fpgaBankCount; ++bank)
        report.fpga.banks.push_back({QStringLiteral("FPGA_BANK_%1_VER").arg(bank), {}});
    report.dsp.images = {{0, {}, {}, 0}};
    report.cpri.images = {{0, {}, {}, -1}};
    for (const char *label : temperatureLabels)
        report.temperature.readings.push_back({QLatin1String(label), {}, std::nullopt});
    for (const CalibrationQuery &query : calibrationQueries)
        report.calibration.push_back({QLatin1String(query.key), QLatin1String(query.label), {}, {}});
    return report;
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

bool isMarkerText(const QString &text)
{
    return markerTexts.contains(text);
}

QStringList serialNumbersIn(const Report &report)
{
    QStringList serials;
    if (report.has("identity"))
        serials << report.identity.serialNumber << report.identity.rfSerial;
    for (const InventoryValue &value : report.inventory)
        if (value.serial)
            serials << value.text;
    serials.erase(std::remove_if(serials.begin(), serials.end(), isMarkerText), serials.end());
    serials.removeDuplicates();
    return serials;
}

bool isSerialField(const QString &section, const QString &key)
{
    static const QStringList fields = [] {
        QStringList names = {"identity/serialNumber", "identity/rfSerial"};
        for (const InventoryValue &value : emptyReport().inventory)
            if (value.serial)
                names << "inventory/" + value.key;
        return names;
    }();
    return fields.contains(section + '/' + key);
}

void sanitizeReport(Report &report, const QStringList &serials)
{
    // The serial fields go whatever they hold; any other field only when its whole value is a serial.
    if (report.has("identity"))
        report.identity.serialNumber = report.identity.rfSerial = serialPlaceholder;
    for (InventoryValue &value : report.inventory)
        if (value.serial)
            value.text = serialPlaceholder;
    forEachText(report, [&serials](QString &text) {
        if (serials.contains(text))
            text = serialPlaceholder;
    });
    report.source.sanitized = true;
    if (!report.source.deviceTree.isEmpty())
        report.source.deviceTree = sourcePlaceholder;
    if (report.source.origin && !report.source.origin->sourceTree.isEmpty())
        report.source.origin->sourceTree = sourcePlaceholder;
}

void sanitizeReport(Report &report)
{
    sanitizeReport(report, serialNumbersIn(report));
}

CalibrationEntry calibrationEntry(const QString &key, const QString &answer)
{
    for (const CalibrationQuery &query : calibrationQueries)
        if (key == QLatin1String(query.key))
            return calibrationOf(query, answer);
    return {key, key, answer, {}};
}

QStringList datedCalibrationFiles()
{
    QStringList paths;
    for (const CalibrationQuery &query : calibrationQueries)
        if (query.dated)
            for (const char *path : query.paths)
                paths << QLatin1String(path);
    return paths;
}

void applyRecordedSoftware(Report &report, const InstrumentSoftware &software)
{
    if (!report.has("identity"))
        return;
    report.identity.firmwareVersion = software.firmwareVersion;
    report.identity.uiVersion = software.uiVersion;
    report.identity.rfSerial = software.rfSerial;
}
