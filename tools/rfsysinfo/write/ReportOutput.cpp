#include "write/ReportOutput.h"

#include "devicePaths.h"
#include "model/ReportJson.h"
#include "write/TerminalText.h"

#include <QJsonDocument>
#include <QRegularExpression>

#include <algorithm>

namespace {

constexpr int labelIndent = 2;
constexpr int labelGap = 2;

struct Line
{
    QString label, text;
};

struct Section
{
    QString title;
    QVector<Line> lines;
};

// A marker shown with what it means; other texts as they are.
QString explained(const QString &text, const QString &meaning)
{
    return meaning.isEmpty() ? text : QStringLiteral("%1 (%2)").arg(text, meaning);
}

QString inventoryMeaning(const QString &text)
{
    if (text == QLatin1String(marker::none))
        return QStringLiteral("file missing or value empty");
    if (text == QLatin1String(marker::keyMissing))
        return QStringLiteral("key missing from the file");
    return {};
}

Section identitySection(const Identity &identity)
{
    using namespace rfsi::paths;
    const bool fallbackModelUsed = identity.model == QLatin1String(fallbackModel);
    return {"Identity",
            {{"Model",
              explained(identity.model, fallbackModelUsed ? "the fallback when no identity tool names it" : QString())},
             {"Serial number", explained(identity.serialNumber, identity.serialNumber == QLatin1String(fallbackSerial)
                                                                    ? "the fallback when no identity tool gives it"
                                                                    : QString())},
             {"Firmware version", identity.firmwareVersion},
             {"UI version", identity.uiVersion},
             {"RF serial", explained(identity.rfSerial, identity.rfSerial == QLatin1String(marker::fixedRfSerial)
                                                            ? "a fixed text: no RF serial is recorded"
                                                            : QString())},
             {"Identity tools",
              identity.toolsRun ? "run" : "not run: they belong to a copied tree (--allow-tools runs them)"}}};
}

Section inventorySection(const QVector<InventoryValue> &inventory)
{
    Section section{"Inventory", {}};
    for (const InventoryValue &value : inventory)
        section.lines.push_back({value.label, explained(value.text, inventoryMeaning(value.text))});
    return section;
}

Section rfSection(const RfModules &rf)
{
    Section section{"RF modules", {{"Revisions (YRO/Mixer/DNC)", explained(rf.summary, inventoryMeaning(rf.summary))}}};
    for (const RfModule &module : rf.modules) {
        QString text = module.text;
        if (!rf.recorded())
            text += QStringLiteral(", not recorded");
        else if (module.text == QLatin1String(marker::keyMissing))
            text += QStringLiteral(", key missing");
        section.lines.push_back({module.label, QStringLiteral("%1 (%2)").arg(module.revision).arg(text)});
    }
    return section;
}

Section fpgaSection(const FpgaBanks &fpga)
{
    Section section{
        "FPGA banks",
        {{"Board description",
          fpga.boardDescriptionLoaded ? "loaded" : "missing or not valid JSON (versions default to 1000)"}}};
    for (int bank = 0; bank < fpga.banks.size(); ++bank)
        section.lines.push_back({QStringLiteral("Bank %1").arg(bank),
                                 explained(fpga.banks[bank].version,
                                           fpga.banks[bank].hasVersion() ? QString() : QStringLiteral("no version"))});
    return section;
}

QString imageText(const DspImage &image)
{
    const QString name = image.name.isEmpty() ? QStringLiteral("(no name)") : image.name;
    if (image.fpgaBank < 0)
        return QStringLiteral("%1, version %2").arg(name, image.version.isEmpty() ? "(none)" : image.version);
    const bool hasVersion = image.version != QLatin1String(marker::noVersion) && !image.version.isEmpty();
    return QStringLiteral("%1, version %2 (%3)")
        .arg(name, image.version,
             hasVersion ? QStringLiteral("FPGA bank %1").arg(image.fpgaBank)
                        : QStringLiteral("FPGA bank %1 has no version").arg(image.fpgaBank));
}

Section imagesSection(const QString &title, const QString &imageLabel, const DspImages &images)
{
    Section section{title, {{QStringLiteral("Active %1s").arg(imageLabel), QString::number(images.activeCount)}}};
    for (const DspImage &image : images.images)
        section.lines.push_back({QStringLiteral("%1 %2").arg(imageLabel).arg(image.index), imageText(image)});
    return section;
}

Section temperatureSection(const Temperatures &temperature)
{
    Section section{"Temperature", {}};
    for (const TemperatureReading &reading : temperature.readings)
        section.lines.push_back({QStringLiteral("Sensor %1").arg(reading.sensor),
                                 explained(reading.text, reading.celsius ? QString() : QStringLiteral("no reading"))});
    if (temperature.readings.isEmpty())
        section.lines.push_back({"Report", temperature.report});
    return section;
}

QString calibrationMeaning(const CalibrationEntry &entry)
{
    if (entry.files.size() > 1)
        return entry.answer.contains(QLatin1String(marker::none)) ? QStringLiteral("NONE: file missing") : QString();
    const CalibrationFile &file = entry.files.front();
    if (!file.present)
        return QStringLiteral("file missing");
    return file.readable ? QString() : QStringLiteral("present, first line unreadable or NONE");
}

Section calibrationSection(const QVector<CalibrationEntry> &calibration)
{
    Section section{"Calibration files", {}};
    for (const CalibrationEntry &entry : calibration)
        section.lines.push_back({entry.label, explained(entry.answer, calibrationMeaning(entry))});
    return section;
}

QVector<Section> textSections(const Report &report)
{
    QVector<Section> sections;
    for (const QString &name : report.sections) {
        if (name == "identity")
            sections << identitySection(report.identity);
        else if (name == "inventory")
            sections << inventorySection(report.inventory);
        else if (name == "rf")
            sections << rfSection(report.rf);
        else if (name == "fpga")
            sections << fpgaSection(report.fpga);
        else if (name == "dsp")
            sections << imagesSection("DSP images", "DSP", report.dsp);
        else if (name == "cpri")
            sections << imagesSection("CPRI DSP images", "CPRI DSP", report.cpri);
        else if (name == "temperature")
            sections << temperatureSection(report.temperature);
        else if (name == "calibration")
            sections << calibrationSection(report.calibration);
    }
    return sections;
}

// A text that spans lines keeps its later lines under the first one's column.
QString indentedText(const QString &text, int column)
{
    QString indented = text;
    return indented.replace(QLatin1Char('\n'), QLatin1Char('\n') + QString(column, QLatin1Char(' ')));
}

QString headerText(const ReportSource &source)
{
    QString text = QStringLiteral("rfsysinfo %1: %2%3\n")
                       .arg(source.toolVersion, terminalText(sourceDescription(source)),
                            source.sanitized ? QStringLiteral(", serial numbers replaced") : QString());
    if (const std::optional<CaptureOrigin> &origin = source.origin) {
        text += QStringLiteral("captured %1 by rfsysinfo %2 from %3\n")
                    .arg(origin->captured.toUTC().toString(Qt::ISODate), terminalText(origin->toolVersion),
                         origin->sourceTree.isEmpty() ? QStringLiteral("the instrument")
                                                      : terminalText(origin->sourceTree));
        if (!origin->software)
            text += QStringLiteral("the capture does not record the instrument's software: firmware and UI versions "
                                   "are this machine's\n");
        for (const QString &path : source.truncatedFiles)
            text += QStringLiteral("truncated by the capture: %1 (what is reported of it cannot be trusted)\n")
                        .arg(terminalText(path));
    }
    return text;
}

} // namespace

QString sourceDescription(const ReportSource &source)
{
    if (source.deviceTree.isEmpty())
        return QStringLiteral("this instrument");
    return (source.capture ? QStringLiteral("capture %1") : QStringLiteral("device tree %1")).arg(source.deviceTree);
}

QByteArray textReport(const Report &report)
{
    const QVector<Section> sections = textSections(report);
    int widest = 0;
    for (const Section &section : sections)
        for (const Line &line : section.lines)
            widest = std::max(widest, static_cast<int>(line.label.size()));
    const int labelWidth = widest + labelGap;
    QString text = headerText(report.source);
    for (const Section &section : sections) {
        text += QLatin1Char('\n') + section.title + QLatin1Char('\n');
        for (const Line &line : section.lines)
            text += QString(labelIndent, QLatin1Char(' ')) + line.label.leftJustified(labelWidth) +
                    indentedText(terminalText(line.text, true), labelIndent + labelWidth) + QLatin1Char('\n');
    }
    return text.toUtf8();
}

QByteArray jsonReport(const Report &report)
{
    QJsonObject document = jsonHeader(report);
    const QJsonObject sections = reportSections(report);
    for (auto section = sections.begin(); section != sections.end(); ++section)
        document.insert(section.key(), section.value());
    return jsonDocumentBytes(document);
}

QByteArray nameValueReport(const Report &report)
{
    static const QRegularExpression imageIndex(QStringLiteral("^images\\[[0-9]+\\]\\."));
    const QJsonObject sections = reportSections(report);
    QString text;
    for (const QString &section : reportSectionNames()) {
        if (!sections.contains(section))
            continue;
        const QMap<QString, QJsonValue> values = sectionValues(sections.value(section));
        QStringList keys = values.keys();
        std::sort(keys.begin(), keys.end(), inReportOrder);
        for (const QString &key : keys) {
            QString name = key;
            name.replace(imageIndex, QStringLiteral("image_")).replace(QLatin1Char('.'), QLatin1Char('_'));
            if (name != QLatin1String("image_index"))
                text +=
                    QStringLiteral("rfsi_%1_%2=%3\n").arg(section, name, terminalText(shownValue(values.value(key))));
        }
    }
    return text.toUtf8();
}
