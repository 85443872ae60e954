// The object and its process-wide state: what the first construction does, and what later ones don't.
#include "DeviceTest.h"
#include "rfSystem_Info.h"

using namespace rfsitest;

namespace {

const std::string inventoryPath = "/tmp/SystemInventoryInfo.info";

} // namespace

TEST(ObjectTest, FirstConstructionLoadsTheInventoryOncePerProcess)
{
    inFreshProcess([] {
        EXPECT_FALSE(rfSystemInfo::updatedSystemInfo);
        EXPECT_EQ(rfSystemInfo::RFHwRevision, "");
        for (const std::string &slot : rfSystemInfo::InventoryInfoString)
            EXPECT_EQ(slot, "");
        writeDeviceFile(inventoryPath, "DPB_Revision=C\nTOP_ProductName=KV721\n");
        writeDeviceFile("/storage/RFHW_Revision.info", "RF_REVISION=2.1/1.0/3.0\n");

        rfSystemInfo *instance = rfSystemInfo::param();
        EXPECT_EQ(rfSystemInfo::param(), instance);
        EXPECT_TRUE(rfSystemInfo::updatedSystemInfo);
        EXPECT_EQ(instance->getDPBModuleRevision(), "C");
        EXPECT_EQ(instance->getSystemDpbSerial(), "KV721");
        EXPECT_EQ(rfSystemInfo::RFHwRevision, "2.1/1.0/3.0");
        EXPECT_EQ(rfSystemInfo::InventoryInfoString[3], "r");

        writeDeviceFile(inventoryPath, "DPB_Revision=D\nTOP_ProductName=other\n");
        {
            rfSystemInfo second;
            EXPECT_EQ(second.getDPBModuleRevision(), "C") << "a second object must not reload";
        }
        rfSystemInfo third;
        EXPECT_EQ(third.getSystemDpbSerial(), "KV721") << "destroying an object keeps the table";
    });
}

TEST(ObjectTest, InventoryMissingAtFirstConstructionStaysNone)
{
    inFreshProcess([] {
        rfSystemInfo first;
        writeDeviceFile(inventoryPath, "DPB_Revision=C\nTOP_ProductName=KV721\n");
        EXPECT_EQ(rfSystemInfo::param()->getSystemDpbSerial(), "NONE");
        EXPECT_EQ(rfSystemInfo::param()->getDPBModuleRevision(), "NONE");
        EXPECT_EQ(rfSystemInfo::RFHwRevision, "NONE");
        for (int slot = 12; slot < 20; ++slot)
            EXPECT_EQ(rfSystemInfo::InventoryInfoString[slot], "") << slot;
    });
}

TEST(ObjectTest, ConstructionFillsTheKeyTablesAndLeavesTheRestEmpty)
{
    rfSystemInfo info;
    const char *const inventoryKeys[] = {"HardwareSetName",    "HardwareSetId",   "Revision",
                                         "SerialNumber",       "ManufactureDate", "CalibrationDate",
                                         "MinimumPower",       "CriticalTemp",    "PcieEndpoints",
                                         "ParentSerialNumber", "ProductName",     "ProductSerialNumber"};
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(info.inventoryKeys[i], inventoryKeys[i]) << i;
    for (int bank = 0; bank < 30; ++bank)
        EXPECT_EQ(info.fpgaBankKeys[bank], bank < 15 ? "FPGA_BANK_" + std::to_string(bank) + "_VER" : "") << bank;
    for (const std::string &name : info.dspNames)
        EXPECT_EQ(name, "");
    EXPECT_TRUE(info.dpbJsonDoc.isNull());
}
