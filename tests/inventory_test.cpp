// The board inventory: the inventory info file's lookups, the table loaded from it and the accessors.
#include "DeviceTest.h"
#include "rfSystem_Info.h"

#include <climits>

using namespace rfsitest;

namespace {

const std::string inventoryPath = "/tmp/SystemInventoryInfo.info";
const std::string rfRevisionPath = "/storage/RFHW_Revision.info";

// Every key the library reads, with a value that names its slot, plus decoys that only a wrong
// prefix would pick up.
const char fullInventory[] = "DPB_HardwareSetName=DPB-7\n"
                             "DPB_HardwareSetId=0x31\n"
                             "DPB_Revision=C\n"
                             "DPB_SerialNumber=A1B2\n"
                             "DPB_ManufactureDate=2024-03-01\n"
                             "DPB_CalibrationDate=2025-06-30\n"
                             "DPB_MinimumPower=-30\n"
                             "DPB_CriticalTemp=85\n"
                             "DPB_PcieEndpoints=4\n"
                             "DPB_ParentSerialNumber=P-900\n"
                             "TOP_ProductName=KV721\n"
                             "TOP_ProductSerialNumber=KV721-0042\n"
                             "TOP_Revision=decoy\n"
                             "DPB_ProductName=decoy\n";
const char *const fullInventoryValues[] = {"DPB-7", "0x31", "C", "A1B2",  "2024-03-01", "2025-06-30",
                                           "-30",   "85",   "4", "P-900", "KV721",      "KV721-0042"};

// Loads the table again, as a caller that clears the public flag may.
void reloadInventory()
{
    rfSystemInfo::updatedSystemInfo = false;
    EXPECT_TRUE(rfSystemInfo::param()->initAllSystemInfo());
}

} // namespace

class InventoryTest : public DeviceTest
{
protected:
    rfSystemInfo &info = *rfSystemInfo::param();
};

TEST_F(InventoryTest, FileFormAnswersNoneOutsideEachBoardsIndexRange)
{
    writeDeviceFile(inventoryPath, fullInventory);
    for (int index : {-1, 10, 11, 12, INT_MIN, INT_MAX})
        EXPECT_EQ(info.getDpbRfSysInfoFromFile(index, true), "NONE") << index;
    // TOP_Revision is in the file, but the TOP lookup reads only its own two keys.
    for (int index : {-1, 0, 2, 9, 12, INT_MIN, INT_MAX})
        EXPECT_EQ(info.getTopRfSysInfoFromFile(index, true), "NONE") << index;
}

TEST_F(InventoryTest, FileFormMarksMissingFileKeyAndValueDifferently)
{
    struct Case
    {
        const char *file; // nullptr: no file at all
        const char *expected;
    };
    const Case cases[] = {
        {nullptr, "NONE"},                    // missing file
        {"DPB_SerialNumber=A1B2\n", "r"},     // file without the key: the lookup's default
        {"DPB_Revision=\n", "NONE"},          // key with an empty value
        {"DPB_Revision=\"\"\n", "NONE"},      // quoted empty value
        {"[General]\nDPB_Revision=B\n", "B"}, // QSettings' own name for the top level
        {"[Board]\nDPB_Revision=B\n", "r"},   // a key inside a group is another key
        {"DPB_Revision=Main board\n", "Main board"},
        {"DPB_Revision=  padded  \n", "padded"},             // QSettings trims unquoted values
        {"DPB_Revision=\"  quoted  \"\n", "  quoted  "},     // and keeps quoted ones as they are
        {"DPB_Revision=Pr\\x00fc\\x66stand\n", "Prüfstand"}, // QSettings' escape, handed on as UTF-8
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.file ? c.file : "(no file)");
        removeDevicePath(inventoryPath);
        if (c.file)
            writeDeviceFile(inventoryPath, c.file);
        EXPECT_EQ(info.getDpbRfSysInfoFromFile(2, true), c.expected);
    }
    removeDevicePath(inventoryPath);
    EXPECT_EQ(info.getTopRfSysInfoFromFile(10, true), "NONE");
}

TEST_F(InventoryTest, CachedFormReturnsTheSlotWithoutReadingTheFile)
{
    writeDeviceFile(inventoryPath, fullInventory);
    reloadInventory();
    writeDeviceFile(inventoryPath, "DPB_Revision=changed\n");
    EXPECT_EQ(info.getDpbRfSysInfoFromFile(2, false), "C");
    // Both lookups share the table: no offset for the TOP form.
    EXPECT_EQ(info.getTopRfSysInfoFromFile(2, false), "C");
    EXPECT_EQ(info.getDpbRfSysInfoFromFile(10, false), "KV721");
    for (int slot = 12; slot < 20; ++slot)
        EXPECT_EQ(info.getDpbRfSysInfoFromFile(slot, false), "") << slot;
    for (int index : {-1, 20, INT_MIN, INT_MAX}) {
        EXPECT_EQ(info.getDpbRfSysInfoFromFile(index, false), "") << index;
        EXPECT_EQ(info.getTopRfSysInfoFromFile(index, false), "") << index;
    }
}

TEST_F(InventoryTest, LoadReadsEachKeyBehindItsBoardPrefixOnlyWhenTheFlagIsClear)
{
    writeDeviceFile(inventoryPath, fullInventory);
    writeDeviceFile(rfRevisionPath, "RF_REVISION=2.1/1.0/3.0\n");
    reloadInventory();
    for (int slot = 0; slot < 12; ++slot)
        EXPECT_EQ(rfSystemInfo::InventoryInfoString[slot], fullInventoryValues[slot]) << slot;
    EXPECT_EQ(rfSystemInfo::RFHwRevision, "2.1/1.0/3.0");
    EXPECT_TRUE(rfSystemInfo::updatedSystemInfo);

    removeDevicePath(inventoryPath);
    removeDevicePath(rfRevisionPath);
    EXPECT_TRUE(info.initAllSystemInfo());
    EXPECT_EQ(info.getDPBModuleRevision(), "C") << "a loaded table is not read again";
    EXPECT_EQ(rfSystemInfo::RFHwRevision, "2.1/1.0/3.0");

    reloadInventory();
    for (int slot = 0; slot < 12; ++slot)
        EXPECT_EQ(rfSystemInfo::InventoryInfoString[slot], "NONE") << slot;
    EXPECT_EQ(rfSystemInfo::RFHwRevision, "NONE");
    EXPECT_FALSE(rfSystemInfo::updateRFRevsionStatus);
}

TEST_F(InventoryTest, AccessorsAnswerSlotTenAndSlotTwoAsLoaded)
{
    writeDeviceFile(inventoryPath, "DPB_Revision=C\nDPB_SerialNumber=A1B2\nTOP_ProductSerialNumber=S-1\n");
    reloadInventory();
    // Despite its name, getSystemDpbSerial answers the TOP product name (slot 10), here absent.
    EXPECT_EQ(info.getSystemDpbSerial(), "r");
    EXPECT_EQ(info.getDPBModuleRevision(), "C");

    rfSystemInfo::InventoryInfoString[10] = std::string("KV7\0hidden", 10);
    rfSystemInfo::InventoryInfoString[2] = "Ä-2";
    EXPECT_EQ(info.getSystemDpbSerial(), "KV7") << "text ends at the first NUL byte";
    EXPECT_EQ(info.getDPBModuleRevision(), QString::fromUtf8("Ä-2"));
}
