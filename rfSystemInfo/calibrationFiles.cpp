// Calibration data under /bin: which files are present, and for the frequency calibration files the
// date their first line carries.
#include "rfSystem_Info.h"

#include "deviceFile.h"
#include "devicePaths.h"
#include "markers.h"

#include <initializer_list>

namespace {

constexpr char wordSeparator[] = "/";

using namespace rfsi::paths;

QString fileStatusWord(const QString &path)
{
    return QString::fromLatin1(rfsi::exists(path) ? rfsi::marker::present : rfsi::marker::none);
}

// The present or none marker per file, in the given order, joined by "/".
QString presenceReport(std::initializer_list<const char *> paths)
{
    QStringList words;
    for (const char *path : paths)
        words << fileStatusWord(QString::fromLatin1(path));
    return words.join(QLatin1String(wordSeparator));
}

} // namespace

QString rfSystemInfo::checkFlatnessFile()
{
    return presenceReport({flatnessDnc, flatnessLow, flatnessHigh});
}

QString rfSystemInfo::checkDncDacFile()
{
    return presenceReport({dncDac1, dncDac2});
}

QString rfSystemInfo::checkYroDacFile()
{
    return presenceReport({yroDacLow, yroDacHigh});
}

QString rfSystemInfo::checkYroSpurFile()
{
    return presenceReport({yroSpurLow, yroSpurHigh});
}

QString rfSystemInfo::checkSystemDate(QString path)
{
    const std::optional<QByteArray> line =
        rfsi::exists(path) ? rfsi::readDeviceBytes(QFile::encodeName(path).constData(), true) : std::nullopt;
    if (!line)
        return QString::fromLatin1(rfsi::marker::none);
    return rfsi::textUpToNul(*line).trimmed().simplified();
}

namespace {

// "OK(<first line>)", "OK(NONE)" when the file does not open, "NONE(NONE)" when it is missing.
QString datedStatus(rfSystemInfo &info, const char *file)
{
    const QString path = QString::fromLatin1(file);
    const QString status = fileStatusWord(path);
    return status + QLatin1Char('(') + info.checkSystemDate(path) + QLatin1Char(')');
}

} // namespace

QString rfSystemInfo::checkBasicFreqCalFile()
{
    return datedStatus(*this, basicFreqCal);
}

QString rfSystemInfo::checkBaseHighFreqCalFile()
{
    return datedStatus(*this, baseHighFreqCal);
}

QString rfSystemInfo::checkBaseLowFreqCalFile()
{
    return datedStatus(*this, baseLowFreqCal);
}

QString rfSystemInfo::checkDncFreqCalFile()
{
    return datedStatus(*this, dncFreqCal);
}

QString rfSystemInfo::checkThirdOffsetFile()
{
    return datedStatus(*this, thirdOffset);
}
