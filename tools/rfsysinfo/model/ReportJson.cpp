#include "model/ReportJson.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace {

QJsonArray imagesJson(const DspImages &images)
{
    QJsonArray array;
    for (const DspImage &image : images.images)
        array.append(QJsonObject{{"index", image.index}, {"name", image.name}, {"version", image.version}});
    return array;
}

QJsonObject sectionJson(const Report &report, const QString &name)
{
    if (name == "identity") {
        const Identity &identity = report.identity;
        return {{"model", identity.model},
                {"serialNumber", identity.serialNumber},
                {"firmwareVersion", identity.firmwareVersion},
                {"uiVersion", identity.uiVersion},
                {"rfSerial", identity.rfSerial},
                {"identityToolsRun", identity.toolsRun}};
    }
    QJsonObject json;
    if (name == "inventory") {
        for (const InventoryValue &value : report.inventory)
            json.insert(value.key, value.text);
    } else if (name == "rf") {
        json.insert("summary", report.rf.summary);
        for (const RfModule &module : report.rf.modules)
            json.insert(module.key, QJsonObject{{"revision", module.revision}, {"text", module.text}});
    } else if (name == "fpga") {
        QJsonObject banks;
        for (const FpgaBank &bank : report.fpga.banks)
            banks.insert(bank.key, bank.version);
        json = {{"boardDescriptionLoaded", report.fpga.boardDescriptionLoaded}, {"banks", banks}};
    } else if (name == "dsp" || name == "cpri") {
        const DspImages &images = name == "dsp" ? report.dsp : report.cpri;
        json = {{"activeCount", images.activeCount}, {"images", imagesJson(images)}};
    } else if (name == "temperature") {
        QJsonObject readings;
        for (const TemperatureReading &reading : report.temperature.readings)
            readings.insert(reading.sensor, reading.text);
        json = {{"report", report.temperature.report}, {"readings", readings}};
    } else if (name == "calibration") {
        for (const CalibrationEntry &entry : report.calibration)
            json.insert(entry.key, entry.answer);
    }
    return json;
}

// A profile's list of accepted values is a value of its own; the report's own lists are images.
void flatten(const QString &key, const QJsonValue &value, QMap<QString, QJsonValue> &leaves)
{
    if (value.isObject()) {
        const QJsonObject members = value.toObject();
        for (auto member = members.begin(); member != members.end(); ++member)
            if (!(key.isEmpty() && member.key() == QLatin1String("identityToolsRun")))
                flatten(key.isEmpty() ? member.key() : key + '.' + member.key(), member.value(), leaves);
    } else if (value.isArray() && key == QLatin1String("images")) {
        for (const QJsonValue &image : value.toArray()) {
            const QJsonObject fields = image.toObject();
            for (auto field = fields.begin(); field != fields.end(); ++field)
                if (field.key() != QLatin1String("index"))
                    leaves.insert(
                        QStringLiteral("%1[%2].%3").arg(key).arg(fields.value("index").toInt()).arg(field.key()),
                        field.value());
        }
    } else {
        leaves.insert(key, value);
    }
}

} // namespace

bool inReportOrder(const QString &a, const QString &b)
{
    int i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (a[i].isDigit() && b[j].isDigit()) {
            const int startA = i, startB = j;
            while (i < a.size() && a[i].isDigit())
                ++i;
            while (j < b.size() && b[j].isDigit())
                ++j;
            const qlonglong numberA = a.mid(startA, i - startA).toLongLong();
            const qlonglong numberB = b.mid(startB, j - startB).toLongLong();
            if (numberA != numberB)
                return numberA < numberB;
        } else if (a[i] != b[j]) {
            return a[i] < b[j];
        } else {
            ++i, ++j;
        }
    }
    return a.size() - i < b.size() - j;
}

QMap<QString, QJsonValue> sectionValues(const QJsonValue &section)
{
    QMap<QString, QJsonValue> values;
    flatten({}, section, values);
    return values;
}

QJsonObject jsonHeader(const Report &report)
{
    const ReportSource &source = report.source;
    QJsonObject header{
        {"tool", "rfsysinfo"},
        {"version", source.toolVersion},
        {"deviceTree", source.deviceTree.isEmpty() ? QJsonValue() : QJsonValue(source.deviceTree)},
        {"sanitized", source.sanitized},
    };
    if (const std::optional<CaptureOrigin> &origin = source.origin)
        header.insert("capture",
                      QJsonObject{{"captured", origin->captured.toUTC().toString(Qt::ISODate)},
                                  {"source", origin->sourceTree.isEmpty() ? "instrument" : "tree"},
                                  {"sourceTree", origin->sourceTree.isEmpty() ? QJsonValue() : origin->sourceTree},
                                  {"toolVersion", origin->toolVersion},
                                  {"softwareRecorded", origin->software.has_value()},
                                  {"truncated", QJsonArray::fromStringList(source.truncatedFiles)}});
    return header;
}

Report reportFromJson(const QJsonObject &document)
{
    Report report = emptyReport();
    report.sections.clear();
    for (const QString &name : reportSectionNames())
        if (document.contains(name))
            report.sections << name;
    const auto section = [&document](const char *name) -> const QJsonObject {
        return document.value(QLatin1String(name)).toObject();
    };
    const QJsonObject identity = section("identity");
    report.identity = {identity["model"].toString(),           identity["serialNumber"].toString(),
                       identity["firmwareVersion"].toString(), identity["uiVersion"].toString(),
                       identity["rfSerial"].toString(),        identity["identityToolsRun"].toBool(true)};
    for (InventoryValue &value : report.inventory)
        value.text = section("inventory")[value.key].toString();
    const QJsonObject rf = section("rf");
    report.rf.summary = rf["summary"].toString();
    for (RfModule &module : report.rf.modules)
        module = {module.key, module.label, rf[module.key]["revision"].toInt(), rf[module.key]["text"].toString()};
    const QJsonObject fpga = section("fpga");
    report.fpga.boardDescriptionLoaded = fpga["boardDescriptionLoaded"].toBool();
    for (FpgaBank &bank : report.fpga.banks)
        bank.version = fpga["banks"][bank.key].toString();
    for (DspImages *images : {&report.dsp, &report.cpri}) {
        const QJsonObject json = section(images == &report.dsp ? "dsp" : "cpri");
        *images = {json["activeCount"].toInt(), {}};
        for (const QJsonValue &image : json["images"].toArray()) {
            const int index = image["index"].toInt();
            images->images.push_back(
                {index, image["name"].toString(), image["version"].toString(), images == &report.dsp ? index : -1});
        }
    }
    report.temperature = temperaturesIn(section("temperature")["report"].toString());
    for (CalibrationEntry &entry : report.calibration)
        entry = calibrationEntry(entry.key, section("calibration")[entry.key].toString());
    report.source.toolVersion = document.value("version").toString();
    report.source.deviceTree = document.value("deviceTree").toString();
    report.source.sanitized = document.value("sanitized").toBool();
    return report;
}

QJsonObject reportSections(const Report &report)
{
    QJsonObject sections;
    for (const QString &name : report.sections)
        sections.insert(name, sectionJson(report, name));
    // As written, so that a live report and a saved one compare equal.
    return interchangeable(sections).toObject();
}

QJsonValue interchangeable(const QJsonValue &value)
{
    if (value.isString()) {
        QString text = value.toString();
        for (QChar *at = text.data(), *end = at + text.size(); at != end; ++at) {
            if (at->isHighSurrogate() && at + 1 != end && at[1].isLowSurrogate())
                ++at;
            else if (at->isSurrogate())
                *at = QChar::ReplacementCharacter;
        }
        return text;
    }
    if (value.isArray()) {
        QJsonArray array;
        for (const QJsonValue &element : value.toArray())
            array.append(interchangeable(element));
        return array;
    }
    if (value.isObject()) {
        QJsonObject object;
        const QJsonObject given = value.toObject();
        for (auto member = given.begin(); member != given.end(); ++member)
            object.insert(interchangeable(member.key()).toString(), interchangeable(member.value()));
        return object;
    }
    return value;
}

QByteArray jsonDocumentBytes(const QJsonObject &document)
{
    return QJsonDocument(interchangeable(document).toObject()).toJson(QJsonDocument::Indented);
}

QStringList jsonHeaderKeys()
{
    return {"tool", "version", "deviceTree", "sanitized", "capture"};
}

QString shownValue(const QJsonValue &value)
{
    if (value.isUndefined())
        return QStringLiteral("(absent)");
    if (value.isString())
        return value.toString();
    if (value.isArray()) {
        QStringList values;
        for (const QJsonValue &element : value.toArray())
            values << shownValue(element);
        return values.join(QStringLiteral(" or "));
    }
    return QString::fromUtf8(QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact)).mid(1).chopped(1);
}
