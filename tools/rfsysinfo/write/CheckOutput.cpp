#include "write/CheckOutput.h"

#include "model/ReportJson.h"
#include "write/ReportOutput.h"
#include "write/TerminalText.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace {

QString plural(int count, const char *word)
{
    return QStringLiteral("%1 %2%3").arg(count).arg(QLatin1String(word)).arg(count == 1 ? "" : "s");
}

// The items of a list in a finding's data, each as `item` words it (a text as it is), joined by commas.
template <typename Item = QString (*)(const QJsonValue &)>
QString listed(
    const QJsonValue &list, Item item = [](const QJsonValue &value) { return value.toString(); })
{
    QStringList items;
    for (const QJsonValue &element : list.toArray())
        items << item(element);
    return items.join(QStringLiteral(", "));
}

// What a finding says: what it found, in the words of its id, and its data item by item.
QString message(const Finding &finding, const Report &report, const CheckOptions &options)
{
    const QJsonObject &data = finding.data;
    const QString &id = finding.id;
    if (id == QLatin1String("capture.truncated"))
        return "files cut short by the capture, what is reported of them cannot be trusted: " + listed(data["files"]);
    if (id == QLatin1String("identity.fallback")) {
        QStringList items;
        if (data.contains("model"))
            items << "model " + data["model"].toString();
        if (data.contains("serialNumber"))
            items << "serial number " + data["serialNumber"].toString();
        return "identity tools missing or silent, fallback used for: " + items.join(QStringLiteral(", "));
    }
    if (id == QLatin1String("inventory.missing"))
        return "inventory NONE (file missing or value empty): " + listed(data["keys"]);
    if (id == QLatin1String("inventory.key-missing"))
        return "inventory r (key missing from the file): " + listed(data["keys"]);
    if (id == QLatin1String("rf.revision-missing"))
        return (data["summary"] == QLatin1String(marker::keyMissing)
                    ? QStringLiteral("RF revision r (RF_REVISION missing from the file): ")
                    : QStringLiteral("RF revision NONE (file missing or value empty): ")) +
               data["file"].toString();
    if (id == QLatin1String("dsp.incomplete") || id == QLatin1String("cpri.incomplete"))
        return QStringLiteral("active %1DSPs without a name or version: ")
                   .arg(id == QLatin1String("cpri.incomplete") ? "CPRI " : "") +
               listed(data["images"], [](const QJsonValue &image) {
                   return QStringLiteral("%1 (no %2)").arg(image["index"].toInt()).arg(image["missing"].toString());
               });
    if (id == QLatin1String("fpga.board-description"))
        return "board description not loaded (missing or not JSON): " + data["file"].toString();
    if (id == QLatin1String("fpga.bank-missing"))
        return "FPGA banks of active DSPs without a version (1000): " +
               listed(data["banks"], [](const QJsonValue &bank) {
                   return QStringLiteral("bank %1 (DSP %2)").arg(bank["bank"].toInt()).arg(bank["dsp"].toInt());
               });
    if (id == QLatin1String("temperature.unavailable"))
        return "temperature sensors without a reading: " + listed(data["sensors"], [](const QJsonValue &sensor) {
                   return QStringLiteral("%1 (%2)").arg(sensor["sensor"].toString(), sensor["text"].toString());
               });
    if (id == QLatin1String("temperature.limit-unknown"))
        return QStringLiteral("no critical temperature to judge the sensors by (--critical-temperature gives one): "
                              "DPB_CriticalTemp is '%1'")
            .arg(data["value"].toString());
    if (id == QLatin1String("temperature.critical"))
        // Each sensor with its reading as the report shows it.
        return QStringLiteral("sensors at or above the critical temperature %1 °C: ")
                   .arg(data["limitCelsius"].toDouble()) +
               listed(data["sensors"], [&report](const QJsonValue &sensor) {
                   QString reading;
                   for (const TemperatureReading &each : report.temperature.readings)
                       if (each.sensor == sensor["sensor"].toString())
                           reading = each.text;
                   return sensor["sensor"].toString() + ' ' + reading;
               });
    if (id == QLatin1String("calibration.missing"))
        return "calibration files missing: " + listed(data["files"]);
    if (id == QLatin1String("calibration.unreadable"))
        return "calibration files present but unreadable: " + listed(data["files"]);
    if (id == QLatin1String("calibration.old"))
        return QStringLiteral("calibration older than %1 days: ").arg(data["maxAgeDays"].toInt()) +
               listed(data["files"], [](const QJsonValue &file) {
                   return QStringLiteral("%1 (%2)").arg(file["file"].toString(), file["date"].toString());
               });
    // release.mismatch: a value the unit lacks is null in the data and "(absent)" in words.
    const QJsonValue actual = data["actual"].isNull() ? QJsonValue(QJsonValue::Undefined) : data["actual"];
    return QStringLiteral("%1 %2 is %3, release %4 expects %5")
        .arg(data["section"].toString(), data["key"].toString(), shownValue(actual),
             options.release ? options.release->name : QString(), shownValue(data["expected"]));
}

} // namespace

QByteArray checkText(const Report &report, const QVector<Finding> &findings, const CheckOptions &options)
{
    const bool strict = options.strict;
    QString text;
    for (const Finding &finding : findings)
        text += QStringLiteral("%1 %2 %3\n")
                    .arg(QString::fromLatin1(finding.error ? "error" : "warning").leftJustified(7),
                         finding.id.leftJustified(25), terminalText(message(finding, report, options)));
    text +=
        terminalText(
            QStringLiteral("rfsysinfo %1 check of %2 (%3 %4)%5%6: %7, %8 and %9%10")
                .arg(report.source.toolVersion, sourceDescription(report.source), report.identity.model,
                     report.identity.serialNumber,
                     options.release ? QStringLiteral(" against %1release %2")
                                           .arg(options.hardwareOnly ? "the hardware of " : "", options.release->name)
                                     : QString(),
                     options.sections == reportSectionNames() ? QString()
                                                              : " in " + options.sections.join(QStringLiteral(", ")),
                     QLatin1String(checkPasses(findings, strict) ? "PASS" : "FAIL"),
                     plural(countOf(findings, true), "error"), plural(countOf(findings, false), "warning"),
                     QLatin1String(strict ? " (strict: warnings fail)" : ""))) +
        QLatin1Char('\n');
    return text.toUtf8();
}

QByteArray checkJson(const Report &report, const QVector<Finding> &findings, const CheckOptions &options)
{
    const bool strict = options.strict;
    QJsonArray list;
    for (const Finding &finding : findings)
        list.append(QJsonObject{{"id", finding.id},
                                {"severity", finding.error ? "error" : "warning"},
                                {"message", message(finding, report, options)},
                                {"data", finding.data}});
    QJsonObject document = jsonHeader(report);
    document.insert("identity",
                    QJsonObject{{"model", report.identity.model}, {"serialNumber", report.identity.serialNumber}});
    document.insert("checked", report.collected.toUTC().toString(Qt::ISODate));
    document.insert("check", QJsonObject{{"verdict", checkPasses(findings, strict) ? "pass" : "fail"},
                                         {"strict", strict},
                                         {"hardwareOnly", options.hardwareOnly},
                                         {"sections", QJsonArray::fromStringList(options.sections)},
                                         {"profile", options.release ? options.release->name : QJsonValue()},
                                         {"findings", list}});
    return jsonDocumentBytes(document);
}
