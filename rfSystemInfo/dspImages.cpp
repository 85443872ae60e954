// DSP images: the DSPs named in /Dsp/name.txt (their versions are the FPGA bank versions of the same
// number) and the CPRI DSPs named and versioned in /DspCpri.
#include "rfSystem_Info.h"

#include "deviceFile.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr char dspNamePath[] = "/Dsp/name.txt";
constexpr char cpriDspNamePath[] = "/DspCpri/name.txt";
constexpr char cpriDspVersionPath[] = "/DspCpri/version.txt";

// What the instrument assumes when a list does not give a usable count.
constexpr int fallbackDspCount = 3;
constexpr int fallbackCpriDspCount = 2;

// A DSP index above this (or negative) stands for DSP 0.
constexpr unsigned highestDspIndex = 15;
constexpr int dspNameCapacity = sizeof(rfSystemInfo::dspNames) / sizeof(std::string);
constexpr int cpriDspCapacity = 10;

int activeCount(const char *path, int fallback)
{
    const std::optional<rfsi::CountedList> list = rfsi::readCountedList(QString::fromLatin1(path), 0);
    return list && list->count >= 1 ? list->count : fallback;
}

int normalisedDspIndex(int index)
{
    return static_cast<unsigned>(index) > highestDspIndex ? 0 : index;
}

// Entry `index` of a CPRI DSP list, or the empty text when the list does not give it.
QString cpriDspEntry(rfSystemInfo &info, const char *path, int index)
{
    // Indices from the count on are rejected; negative ones pass the count but no list holds them.
    if (index >= info.getCpriDspActiveCount() || index < 0 || index >= cpriDspCapacity)
        return {};
    const std::optional<rfsi::CountedList> list = rfsi::readCountedList(QString::fromLatin1(path), cpriDspCapacity);
    if (!list || index >= static_cast<int>(list->entries.size()))
        return {};
    return QString::fromStdString(list->entries[static_cast<size_t>(index)]);
}

} // namespace

int rfSystemInfo::getDspActiveCount()
{
    return activeCount(dspNamePath, fallbackDspCount);
}

QString rfSystemInfo::checkDspVersion(int index)
{
    // Reloaded before the index is looked at: the version lookup below reads the file again.
    loadDpbSysmtemInfo();
    const int dsp = normalisedDspIndex(index);
    if (dsp >= getDspActiveCount())
        return {};
    return getFpgaVersionrfSystemInfo(QString::fromStdString(fpgaBankKeys[dsp]));
}

QString rfSystemInfo::checkDspString(int index)
{
    const int dsp = normalisedDspIndex(index);
    if (dsp >= getDspActiveCount())
        return {};
    const std::optional<rfsi::CountedList> list =
        rfsi::readCountedList(QString::fromLatin1(dspNamePath), dspNameCapacity);
    if (!list)
        return {};
    // Entries from the new count on keep the names of an earlier, longer list.
    std::copy(list->entries.begin(), list->entries.end(), std::begin(dspNames));
    return QString::fromStdString(dspNames[dsp]);
}

int rfSystemInfo::getCpriDspActiveCount()
{
    return activeCount(cpriDspNamePath, fallbackCpriDspCount);
}

QString rfSystemInfo::checkCpriDspVersion(int index)
{
    return cpriDspEntry(*this, cpriDspVersionPath, index);
}

QString rfSystemInfo::checkCpriDspString(int index)
{
    return cpriDspEntry(*this, cpriDspNamePath, index);
}
