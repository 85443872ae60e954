// What rfsysinfo reports, as one typed model: the library's answers as collected (texts exactly as the
// library returned them), with what the tool knows about each of them beside it (a reading as a number,
// a calibration file's presence and first line, the FPGA bank a DSP's version comes from). The text,
// JSON, check and metrics outputs are each a function of this model; none of them reads another's.
#ifndef RFSYSINFO_REPORTMODEL_H
#define RFSYSINFO_REPORTMODEL_H

#include "DeviceState.h"
#include "markers.h"

#include <QDate>
#include <QDateTime>
#include <QString>
#include <QStringList>
#include <QVector>

#include <optional>

class rfSystemInfo;

// The library's marker texts, answered in place of data.
namespace marker = rfsi::marker;

struct Identity
{
    QString model, serialNumber, firmwareVersion, uiVersion, rfSerial;
    bool toolsRun = true;
};

struct InventoryValue
{
    QString key; // the inventory info file's key, also the JSON key
    QString label;
    bool serial = false;
    QString text;
};

struct RfModule
{
    QString key, label; // "yro", "YRO"
    int revision = 0;
    QString text;
};

struct RfModules
{
    QString summary;
    QVector<RfModule> modules; // YRO, Mixer, DNC
    // With no RF revision file (or an empty value), each module answers the default 1 / "1.0".
    bool recorded() const { return summary != QLatin1String(marker::none); }
};

struct FpgaBank
{
    QString key; // "FPGA_BANK_2_VER"
    QString version;
    bool hasVersion() const { return version != QLatin1String(marker::noVersion); }
};

struct FpgaBanks
{
    bool boardDescriptionLoaded = false;
    QVector<FpgaBank> banks; // in bank order 0..14
};

struct DspImage
{
    int index = 0;
    QString name, version;
    int fpgaBank = -1; // the bank a DSP's version is read from; -1: its own version file (CPRI)
};

struct DspImages
{
    int activeCount = 0;
    QVector<DspImage> images; // each active image the library can name
};

struct TemperatureReading
{
    QString sensor; // P, M, Y, D
    QString text;
    std::optional<double> celsius;
};

struct Temperatures
{
    QString report; // the library's whole answer
    QVector<TemperatureReading> readings;
};

struct CalibrationFile
{
    QString path;
    bool present = false;
    bool dated = false;    // one of the files whose first line the library reports
    bool readable = false; // dated and present, and a first line was read
    QString firstLine;
};

struct CalibrationEntry
{
    QString key, label;
    QString answer; // "OK/OK/NONE", "OK(first line)", "OK(NONE)", "NONE(NONE)"
    QVector<CalibrationFile> files;
};

// What the report is of, and by whom.
struct ReportSource
{
    QString toolVersion;
    QString deviceTree; // a folder or a capture as given; empty: this instrument
    bool capture = false;
    bool sanitized = false;
    std::optional<CaptureOrigin> origin; // a replay: what the capture says of itself
    QStringList truncatedFiles;          // a replay: the files the capture cut
};

struct Report
{
    ReportSource source;
    QDateTime collected;
    QStringList sections; // what was collected, in report order
    Identity identity;
    QVector<InventoryValue> inventory;
    RfModules rf;
    FpgaBanks fpga;
    DspImages dsp, cpri;
    Temperatures temperature;
    QVector<CalibrationEntry> calibration;

    bool has(const char *section) const { return sections.contains(QLatin1String(section)); }
    QString inventoryText(const char *key) const;
};

struct ReportOptions
{
    QStringList sections; // names to report, in report order; empty: all
    bool identityToolsRun = true;
};

// The section names, in report order.
QStringList reportSectionNames();

// Asks the library for every selected section.
Report collectReport(rfSystemInfo &info, const ReportOptions &options);

// Every section with every key and empty values, and one image in each image list: the shape that
// the JSON report has, against which profiles and saved reports are checked.
Report emptyReport();

// The temperature report's readings, taken out of "<P>(P)/<M>(M)\n<Y>(Y)/<D>(D)" by their labels.
Temperatures temperaturesIn(const QString &report);

// A calibration answer (under its JSON key) with what it says of each file.
CalibrationEntry calibrationEntry(const QString &key, const QString &answer);
// The calibration files whose first line the report shows.
QStringList datedCalibrationFiles();

// A text read as a number (C locale, white space around allowed); nothing when it is none.
std::optional<double> numberIn(const QString &text);
// The date a text begins with (YYYY-MM-DD), if it does.
std::optional<QDate> leadingDate(const QString &text);

// Whether `text` is one of the library's marker texts, which are never serial numbers.
bool isMarkerText(const QString &text);

// The serial numbers the report holds (identity, RF and the inventory's serial keys), markers left out.
QStringList serialNumbersIn(const Report &report);

// A replay shows the instrument's software as the capture recorded it.
void applyRecordedSoftware(Report &report, const InstrumentSoftware &software);

// Whether the report's key holds a serial number: the identity's two, and the inventory's serial keys.
bool isSerialField(const QString &section, const QString &key);

// Replaces the serial fields, and every other field whose whole value is one of the report's serial
// numbers, by serialPlaceholder. Parts of other values are never touched: a serial "-" leaves every
// date as it is. The names of the device tree and the capture are withheld.
void sanitizeReport(Report &report);
// The same with the serial numbers given: both sides of a comparison withhold those of either side.
void sanitizeReport(Report &report, const QStringList &serials);

// The placeholder that stands for a serial number in a sanitized report, and for a device tree's or a
// capture's name, which is often the instrument's serial number.
extern const QString serialPlaceholder;
extern const QString sourcePlaceholder;

#endif // RFSYSINFO_REPORTMODEL_H
