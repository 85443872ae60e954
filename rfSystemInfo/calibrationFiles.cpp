// Calibration data under /bin: which files are present, and for the frequency calibration files the
// date their first line carries.
#include "rfSystem_Info.h"

#include "deviceFile.h"

#include <initializer_list>

namespace {

constexpr char presentWord[] = "OK";
constexpr char missingWord[] = "NONE";
constexpr char wordSeparator[] = "/";

constexpr char flatnessDncFile[] = "/bin/DNC_10_100M.csv";
constexpr char flatnessLowFile[] = "/bin/Low_10_100M.csv";
constexpr char flatnessHighFile[] = "/bin/High_10_100M.csv";
constexpr char dncDacFile1[] = "/bin/dncDac1.csv";
constexpr char dncDacFile2[] = "/bin/dncDac2.csv";
constexpr char yroDacLowFile[] = "/bin/nyroFreq1stlow.csv";
constexpr char yroDacHighFile[] = "/bin/nyroFreq1sthigh.csv";
constexpr char yroSpurLowFile[] = "/bin/nyro_spur_low.csv";
constexpr char yroSpurHighFile[] = "/bin/nyro_spur_high.csv";

constexpr char basicFreqCalFile[] = "/bin/basic_freq_cal.csv";
constexpr char baseHighFreqCalFile[] = "/bin/freq_cal_high.csv";
constexpr char baseLowFreqCalFile[] = "/bin/freq_cal_low.csv";
constexpr char dncFreqCalFile[] = "/bin/dnc_freq_cal.csv";
constexpr char thirdOffsetFile[] = "/bin/thirdAmpOffset.dat";

QString fileStatusWord(const QString &path)
{
    return QString::fromLatin1(rfsi::exists(path) ? presentWord : missingWord);
}

// "OK" or "NONE" per file, in the given order, joined by "/".
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
    return presenceReport({flatnessDncFile, flatnessLowFile, flatnessHighFile});
}

QString rfSystemInfo::checkDncDacFile()
{
    return presenceReport({dncDacFile1, dncDacFile2});
}

QString rfSystemInfo::checkYroDacFile()
{
    return presenceReport({yroDacLowFile, yroDacHighFile});
}

QString rfSystemInfo::checkYroSpurFile()
{
    return presenceReport({yroSpurLowFile, yroSpurHighFile});
}

QString rfSystemInfo::checkSystemDate(QString path)
{
    QFile file(path);
    if (!rfsi::exists(path) || !rfsi::openForReading(file))
        return QString::fromLatin1(missingWord);
    return rfsi::textUpToNul(file.readLine()).trimmed().simplified();
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
    return datedStatus(*this, basicFreqCalFile);
}

QString rfSystemInfo::checkBaseHighFreqCalFile()
{
    return datedStatus(*this, baseHighFreqCalFile);
}

QString rfSystemInfo::checkBaseLowFreqCalFile()
{
    return datedStatus(*this, baseLowFreqCalFile);
}

QString rfSystemInfo::checkDncFreqCalFile()
{
    return datedStatus(*this, dncFreqCalFile);
}

QString rfSystemInfo::checkThirdOffsetFile()
{
    return datedStatus(*this, thirdOffsetFile);
}
