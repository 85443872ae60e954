// RF module revisions. The RF revision file keeps the three modules' hardware revisions under one
// key, "YRO/Mixer/DNC"; the summary is that value whole, the module queries take one field of it.
#include "rfSystem_Info.h"

#include "deviceFile.h"
#include "devicePaths.h"
#include "markers.h"

#include <QStringList>

#include <climits>
#include <cmath>
#include <optional>

namespace {

const QString rfRevisionPath = QString::fromLatin1(rfsi::paths::rfRevision);
const QString rfRevisionKey = QStringLiteral("RF_REVISION");
const QString fieldSeparator = QStringLiteral("/");

// What a module query answers when the file or value gives it nothing to read.
constexpr int defaultRevision = 1;

// Field positions inside the RF_REVISION value.
enum RfModule { Yro = 0, Mixer = 1, Dnc = 2 };

// The RF_REVISION value; std::nullopt when the file is missing or the value empty, which callers
// treat alike.
std::optional<QString> readRfRevision()
{
    std::optional<QString> value = rfsi::readIniValue(rfRevisionPath, rfRevisionKey);
    if (!value || value->isEmpty())
        return std::nullopt;
    return value;
}

// One module's field; std::nullopt when there is no value or the value has fewer fields.
std::optional<QString> readModuleField(RfModule module)
{
    const std::optional<QString> value = readRfRevision();
    if (!value)
        return std::nullopt;
    const QStringList fields = value->split(fieldSeparator, Qt::KeepEmptyParts, Qt::CaseSensitive);
    if (module >= fields.size())
        return std::nullopt;
    return fields.at(module);
}

// Truncates toward zero into int, saturating at its limits; a field that is not a number (or NaN)
// counts as 0.
int revisionNumber(const QString &field)
{
    const double number = field.toDouble();
    if (std::isnan(number))
        return 0;
    if (number >= static_cast<double>(INT_MAX))
        return INT_MAX;
    if (number <= static_cast<double>(INT_MIN))
        return INT_MIN;
    return static_cast<int>(number);
}

int moduleRevision(RfModule module)
{
    const std::optional<QString> field = readModuleField(module);
    return field ? revisionNumber(*field) : defaultRevision;
}

std::string moduleRevisionText(RfModule module)
{
    const std::optional<QString> field = readModuleField(module);
    return field ? field->toStdString() : rfsi::marker::notRecorded;
}

} // namespace

int rfSystemInfo::getYroModuleRevision()
{
    return moduleRevision(Yro);
}

int rfSystemInfo::getMixerModuleRevision()
{
    return moduleRevision(Mixer);
}

int rfSystemInfo::getDncModuleRevision()
{
    return moduleRevision(Dnc);
}

std::string rfSystemInfo::getYroModuleStringRevision()
{
    return moduleRevisionText(Yro);
}

std::string rfSystemInfo::getMixerModuStringRevision()
{
    return moduleRevisionText(Mixer);
}

std::string rfSystemInfo::getDncModuleStringRevision()
{
    return moduleRevisionText(Dnc);
}

QString rfSystemInfo::checkRFModuleRevision()
{
    return readRfRevision().value_or(QString::fromLatin1(rfsi::marker::none));
}

QString rfSystemInfo::getRFModuleRevision()
{
    RFHwRevision = checkRFModuleRevision().toStdString();
    return QString::fromStdString(RFHwRevision);
}
