// DSP images: the DSPs named in /Dsp/name.txt (their versions are the FPGA bank versions of the same
// number) and the CPRI DSPs named and versioned in /DspCpri.
#include "rfSystem_Info.h"

#include "deviceFile.h"
#include "devicePaths.h"

#include <algorithm>
#include <iterator>

namespace {

using rfsi::paths::cpriDspNameList;
using rfsi::paths::cpriDspVersionList;
using rfsi::paths::dspNameList;

// What the instrument assumes when a list does not give a usable count.
constexpr int fallbackDspCount = 3;
constexpr int fallbackCpriDspCount = 2;

// A DSP index above this (or negative) stands for DSP 0.
constexpr unsigned highestDspIndex = 15;
constexpr int dspNameCapacity = sizeof(rfSystemInfo::dspNames) / sizeof(std::string);
constexpr int cpriDspCapacity = 10;

// The active count that a list (or its absence) gives.
int activeCount(const std::optional<rfsi::CountedList> &list, int fallback)
{
    return list && list->count >= 1 ? list->count : fallback;
}

int activeCount(const char *path, int fallback)
{
    return activeCount(rfsi::readCountedList(QString::fromLatin1(path), 0), fallback);
}

int normalisedDspIndex(int index)
{
    return static_cast<unsigned>(index) > highestDspIndex ? 0 : index;
}

// Indices from the count on are rejected; negative ones pass the count, but no list holds them, nor
// an index past the ten entries a list keeps.
bool cpriIndexAccepted(const std::optional<rfsi::CountedList> &names, int index)
{
    return index < activeCount(names, fallbackCpriDspCount) && index >= 0 && index < cpriDspCapacity;
}

// Entry `index` of a CPRI DSP list, or the empty text when the list does not give it.
QString cpriDspEntry(const std::optional<rfsi::CountedList> &list, int index)
{
    if (!list || index >= static_cast<int>(list->entries.size()))
        return {};
    return QString::fromStdString(list->entries[static_cast<size_t>(index)]);
}

std::optional<rfsi::CountedList> cpriList(const char *path)
{
    return rfsi::readCountedList(QString::fromLatin1(path), cpriDspCapacity);
}

} // namespace

int rfSystemInfo::getDspActiveCount()
{
    return activeCount(dspNameList, fallbackDspCount);
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
    // One read gives both the count that accepts the index and the names.
    const std::optional<rfsi::CountedList> list =
        rfsi::readCountedList(QString::fromLatin1(dspNameList), dspNameCapacity);
    const int dsp = normalisedDspIndex(index);
    if (dsp >= activeCount(list, fallbackDspCount) || !list)
        return {};
    // Entries from the new count on keep the names of an earlier, longer list.
    std::copy(list->entries.begin(), list->entries.end(), std::begin(dspNames));
    return QString::fromStdString(dspNames[dsp]);
}

int rfSystemInfo::getCpriDspActiveCount()
{
    return activeCount(cpriDspNameList, fallbackCpriDspCount);
}

QString rfSystemInfo::checkCpriDspVersion(int index)
{
    if (!cpriIndexAccepted(rfsi::readCountedList(QString::fromLatin1(cpriDspNameList), 0), index))
        return {};
    return cpriDspEntry(cpriList(cpriDspVersionList), index);
}

QString rfSystemInfo::checkCpriDspString(int index)
{
    // One read gives both the count that accepts the index and the names.
    const std::optional<rfsi::CountedList> names = cpriList(cpriDspNameList);
    return cpriIndexAccepted(names, index) ? cpriDspEntry(names, index) : QString();
}
