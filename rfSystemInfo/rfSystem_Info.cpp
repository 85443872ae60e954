// The object itself and the board inventory: key tables, the single instance, and the inventory info
// file that another service writes at start-up and that this library loads once per process.
#include "rfSystem_Info.h"

#include "deviceFile.h"
#include "devicePaths.h"
#include "markers.h"

#include <algorithm>
#include <iterator>

namespace {

const QString inventoryInfoPath = QString::fromLatin1(rfsi::paths::inventoryInfo);
constexpr char dpbKeyPrefix[] = "DPB_";
constexpr char topKeyPrefix[] = "TOP_";

// Entries 0..9 are the DPB's keys, 10 and 11 the TOP board's; the entry number is also the slot of
// the inventory table that keeps the value.
const char *const inventoryKeyNames[] = {
    "HardwareSetName", "HardwareSetId", "Revision",      "SerialNumber",       "ManufactureDate", "CalibrationDate",
    "MinimumPower",    "CriticalTemp",  "PcieEndpoints", "ParentSerialNumber", "ProductName",     "ProductSerialNumber",
};
constexpr int firstDpbSlot = 0;
constexpr int lastDpbSlot = 9;
constexpr int firstTopSlot = 10;
constexpr int lastTopSlot = 11;
constexpr int revisionSlot = 2;
constexpr int productNameSlot = 10;
constexpr int fpgaBankCount = 15;

// Unsigned arithmetic, so that every negative index counts as out of range (and INT_MIN - first
// cannot overflow).
bool inSlotRange(int index, int first, int last)
{
    return static_cast<unsigned>(index) - static_cast<unsigned>(first) <= static_cast<unsigned>(last - first);
}

} // namespace

std::string rfSystemInfo::InventoryInfoString[20];
std::string rfSystemInfo::RFHwRevision;
bool rfSystemInfo::updateRFRevsionStatus = false;
bool rfSystemInfo::updatedSystemInfo = false;

static_assert(std::size(inventoryKeyNames) == sizeof(rfSystemInfo::inventoryKeys) / sizeof(std::string));

rfSystemInfo::rfSystemInfo()
{
    std::copy(std::begin(inventoryKeyNames), std::end(inventoryKeyNames), std::begin(inventoryKeys));
    for (int bank = 0; bank < fpgaBankCount; ++bank)
        fpgaBankKeys[bank] = "FPGA_BANK_" + std::to_string(bank) + "_VER";
    initAllSystemInfo();
}

rfSystemInfo::~rfSystemInfo() = default;

rfSystemInfo *rfSystemInfo::param()
{
    static rfSystemInfo instance;
    return &instance;
}

namespace {

std::string cachedInventoryValue(int slot)
{
    if (!inSlotRange(slot, 0, static_cast<int>(std::size(rfSystemInfo::InventoryInfoString)) - 1))
        return {};
    return rfSystemInfo::InventoryInfoString[slot];
}

// A looked-up value as the inventory answers it: `NONE` for a missing file or an empty value.
std::string inventoryAnswer(const std::optional<QString> &value)
{
    if (!value || value->isEmpty())
        return rfsi::marker::none;
    return value->toStdString();
}

std::string readInventoryValue(const std::string &fileKey)
{
    return inventoryAnswer(rfsi::readIniValue(inventoryInfoPath, QString::fromStdString(fileKey)));
}

} // namespace

std::string rfSystemInfo::getDpbRfSysInfoFromFile(int index, bool fromFile)
{
    if (!fromFile)
        return cachedInventoryValue(index);
    if (!inSlotRange(index, firstDpbSlot, lastDpbSlot))
        return rfsi::marker::none;
    return readInventoryValue(dpbKeyPrefix + inventoryKeys[index]);
}

std::string rfSystemInfo::getTopRfSysInfoFromFile(int index, bool fromFile)
{
    if (!fromFile)
        return cachedInventoryValue(index);
    if (!inSlotRange(index, firstTopSlot, lastTopSlot))
        return rfsi::marker::none;
    return readInventoryValue(topKeyPrefix + inventoryKeys[index]);
}

bool rfSystemInfo::initAllSystemInfo()
{
    if (updatedSystemInfo)
        return true;
    // The twelve file lookups, read through one settings object: the same answers as twelve
    // getDpbRfSysInfoFromFile/getTopRfSysInfoFromFile(index, true) calls, for a twelfth of the cost.
    QStringList fileKeys;
    for (int slot = firstDpbSlot; slot <= lastTopSlot; ++slot)
        fileKeys << QString::fromStdString((slot <= lastDpbSlot ? dpbKeyPrefix : topKeyPrefix) + inventoryKeys[slot]);
    const std::optional<QStringList> values = rfsi::readIniValues(inventoryInfoPath, fileKeys);
    for (int slot = firstDpbSlot; slot <= lastTopSlot; ++slot)
        InventoryInfoString[slot] = inventoryAnswer(values ? std::optional<QString>(values->at(slot)) : std::nullopt);
    RFHwRevision = checkRFModuleRevision().toStdString();
    updatedSystemInfo = true;
    return true;
}

QString rfSystemInfo::getSystemDpbSerial()
{
    return rfsi::textUpToNul(getTopRfSysInfoFromFile(productNameSlot, false));
}

QString rfSystemInfo::getDPBModuleRevision()
{
    return rfsi::textUpToNul(getTopRfSysInfoFromFile(revisionSlot, false));
}
