// What a device case cannot show: state kept across calls within one process (the inventory loaded
// once, the RF summary stored only when asked, a board description kept after its file goes, DSP
// names kept from a longer list) and the arguments a caller passes beyond what the report asks.
#include "DeviceTest.h"
#include "rfSystem_Info.h"

#include <climits>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>

using namespace rfsitest;
namespace fs = std::filesystem;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const std::string inventoryPath = "/tmp/SystemInventoryInfo.info";
const std::string rfRevisionPath = "/storage/RFHW_Revision.info";
const std::string boardPath = "/bin/DpbJsonInfo.json";
const std::string dspNames = "/Dsp/name.txt";
// Every DPB key with a value that names its slot, the TOP keys and a decoy TOP key.
const char inventory[] = "DPB_HardwareSetName=s0\nDPB_HardwareSetId=s1\nDPB_Revision=C\nDPB_SerialNumber=s3\n"
                         "DPB_ManufactureDate=s4\nDPB_CalibrationDate=s5\nDPB_MinimumPower=s6\nDPB_CriticalTemp=s7\n"
                         "DPB_PcieEndpoints=s8\nDPB_ParentSerialNumber=s9\nTOP_ProductName=KV721\n"
                         "TOP_ProductSerialNumber=s11\nTOP_Revision=decoy\n";

// Loads the table again, as a caller that clears the public flag may.
void reloadInventory()
{
    rfSystemInfo::updatedSystemInfo = false;
    EXPECT_TRUE(rfSystemInfo::param()->initAllSystemInfo());
}

} // namespace

class StateTest : public DeviceTest
{
protected:
    rfSystemInfo &info = *rfSystemInfo::param();
};

TEST(ObjectTest, FirstConstructionLoadsTheInventoryOncePerProcessAndOnlyThen)
{
    for (const bool presentAtFirst : {true, false})
        inFreshProcess([presentAtFirst] {
            EXPECT_FALSE(rfSystemInfo::updatedSystemInfo);
            EXPECT_EQ(rfSystemInfo::RFHwRevision, "");
            for (const std::string &slot : rfSystemInfo::InventoryInfoString)
                EXPECT_EQ(slot, "");
            if (presentAtFirst) {
                writeDeviceFile(inventoryPath, "DPB_Revision=C\nTOP_ProductName=KV721\n");
                writeDeviceFile(rfRevisionPath, "RF_REVISION=2.1/1.0/3.0\n");
            }
            rfSystemInfo *instance = rfSystemInfo::param();
            EXPECT_EQ(rfSystemInfo::param(), instance);
            EXPECT_TRUE(rfSystemInfo::updatedSystemInfo);
            EXPECT_EQ(rfSystemInfo::RFHwRevision, presentAtFirst ? "2.1/1.0/3.0" : "NONE");
            writeDeviceFile(inventoryPath, "DPB_Revision=D\nTOP_ProductName=other\n");
            {
                rfSystemInfo second;
                EXPECT_EQ(second.getDPBModuleRevision(), presentAtFirst ? "C" : "NONE") << "a second object reloaded";
            }
            EXPECT_EQ(rfSystemInfo().getSystemDpbSerial(), presentAtFirst ? "KV721" : "NONE")
                << "destroying an object keeps the table";
        });
}

TEST_F(StateTest, InventoryTableIsLoadedOnlyWhenTheFlagIsClearAndServedWithoutTheFile)
{
    writeDeviceFile(inventoryPath, inventory);
    writeDeviceFile(rfRevisionPath, "RF_REVISION=2.1/1.0/3.0\n");
    reloadInventory();
    fs::remove(inventoryPath);
    fs::remove(rfRevisionPath);
    EXPECT_TRUE(info.initAllSystemInfo());
    EXPECT_EQ(rfSystemInfo::RFHwRevision, "2.1/1.0/3.0") << "a loaded table is not read again";
    // Both lookups share the table: no offset for the TOP form.
    EXPECT_EQ(info.getTopRfSysInfoFromFile(2, false), "C");
    EXPECT_EQ(info.getDpbRfSysInfoFromFile(11, false), "s11");
    for (int slot : {12, 19, -1, 20, INT_MIN, INT_MAX})
        EXPECT_EQ(info.getTopRfSysInfoFromFile(slot, false), "") << slot;
    // The accessors answer slots 10 and 2, as UTF-8 up to the first NUL.
    rfSystemInfo::InventoryInfoString[10] = std::string("KV7\0hidden", 10);
    rfSystemInfo::InventoryInfoString[2] = "Ä-2";
    EXPECT_EQ(info.getSystemDpbSerial(), "KV7");
    EXPECT_EQ(info.getDPBModuleRevision(), QString::fromUtf8("Ä-2"));
    reloadInventory();
    EXPECT_EQ(info.getDPBModuleRevision(), "NONE");
    EXPECT_EQ(rfSystemInfo::RFHwRevision, "NONE");
    EXPECT_FALSE(rfSystemInfo::updateRFRevsionStatus);
}

TEST_F(StateTest, OnlyGetRFModuleRevisionStoresTheSummaryAndEveryCallRereads)
{
    writeDeviceFile(rfRevisionPath, "RF_REVISION=2.1/1.0/3.0\n");
    rfSystemInfo::RFHwRevision = "kept";
    EXPECT_EQ(info.checkRFModuleRevision(), "2.1/1.0/3.0");
    EXPECT_EQ(info.getYroModuleRevision(), 2);
    EXPECT_EQ(rfSystemInfo::RFHwRevision, "kept") << "the read-only queries must not store";
    EXPECT_EQ(info.getRFModuleRevision(), "2.1/1.0/3.0");
    EXPECT_EQ(rfSystemInfo::RFHwRevision, "2.1/1.0/3.0");
    writeDeviceFile(rfRevisionPath, "RF_REVISION=2.1/1.0/3.7\n"); // same size: only the new time tells
    EXPECT_EQ(info.getDncModuleStringRevision(), "3.7");
    // Another INI file of the same size and time, read between, is read as itself, and so is this one.
    writeDeviceFile(inventoryPath, "DPB_Revision=123456789A\n");
    struct stat revision;
    ASSERT_EQ(::stat(rfRevisionPath.c_str(), &revision), 0);
    const timespec sameTimes[2] = {revision.st_mtim, revision.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, inventoryPath.c_str(), sameTimes, 0), 0);
    EXPECT_EQ(info.getDpbRfSysInfoFromFile(2, true), "123456789A");
    EXPECT_EQ(info.getDncModuleStringRevision(), "3.7");
    fs::remove(rfRevisionPath);
    EXPECT_EQ(info.getRFModuleRevision(), "NONE");
    EXPECT_EQ(rfSystemInfo::RFHwRevision, "NONE");
}

TEST_F(StateTest, BoardDescriptionOutlivesItsFileButNotABadReplacement)
{
    const std::string openFailure =
        "[rfSystemInfo/rfSystem_Info:loadDpbSysmtemInfo:410] File open fail!! /bin/DpbJsonInfo.json\n";
    rfSystemInfo own; // its own document, null until the first load
    CaptureStdout();
    EXPECT_EQ(own.loadDpbSysmtemInfo(), -1);
    EXPECT_EQ(own.getFpgaVersionrfSystemInfo("FPGA_BANK_0_VER"), "1000");
    EXPECT_EQ(GetCapturedStdout(), openFailure + openFailure);
    writeDeviceFile(boardPath, R"({"FPGA_VER":{"FPGA_BANK_0_VER":"0.9"}})");
    EXPECT_EQ(own.getFpgaVersionrfSystemInfo("FPGA_BANK_0_VER"), "0.9");
    fs::remove(boardPath);
    CaptureStdout();
    EXPECT_EQ(own.getFpgaVersionrfSystemInfo("FPGA_BANK_0_VER"), "0.9");
    EXPECT_EQ(GetCapturedStdout(), openFailure);
    writeDeviceFile(boardPath, "not json");
    CaptureStdout();
    EXPECT_EQ(own.getFpgaVersionrfSystemInfo("FPGA_BANK_0_VER"), "1000");
    EXPECT_EQ(GetCapturedStdout(), "## FlashJSonFile is Null\n");
    EXPECT_TRUE(own.dpbJsonDoc.isNull());

    // A DSP version loads the board description before it looks at the index, and again for the
    // version: two messages for an accepted index, one for a rejected one (no name file: count 3).
    fs::remove(boardPath);
    CaptureStdout();
    EXPECT_EQ(own.checkDspVersion(0), "1000");
    EXPECT_EQ(own.checkDspVersion(5), "");
    EXPECT_EQ(GetCapturedStdout(), openFailure + openFailure + openFailure);

    // A firmware update rewrites the file with bytes of the same size, and may keep its time.
    writeDeviceFile(boardPath, R"({"FPGA_VER":{"FPGA_BANK_0_VER":"2.8.0"}})");
    struct stat before;
    ASSERT_EQ(::stat(boardPath.c_str(), &before), 0);
    EXPECT_EQ(own.getFpgaVersionrfSystemInfo("FPGA_BANK_0_VER"), "2.8.0");
    writeDeviceFile(boardPath, R"({"FPGA_VER":{"FPGA_BANK_0_VER":"2.8.1"}})");
    const timespec sameTimes[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, boardPath.c_str(), sameTimes, 0), 0);
    EXPECT_EQ(own.getFpgaVersionrfSystemInfo("FPGA_BANK_0_VER"), "2.8.1");
}

// Indices outside each lookup's range. Our decision where the acceptance test leaves it open: a DSP
// index equal to the active count is rejected like the ones above it; CPRI indices are accepted by
// the name file's count alone, and the CPRI entry list holds ten.
TEST_F(StateTest, IndicesOutsideEachLookupsRangeAnswerTheirMarkerOrStandForZero)
{
    writeDeviceFile(inventoryPath, inventory);
    EXPECT_EQ(info.getDpbRfSysInfoFromFile(9, true), "s9");
    EXPECT_EQ(info.getTopRfSysInfoFromFile(11, true), "s11");
    for (int index : {-1, 10, 11, 12, INT_MIN, INT_MAX})
        EXPECT_EQ(info.getDpbRfSysInfoFromFile(index, true), "NONE") << index;
    // TOP_Revision is in the file, but the TOP lookup reads only its own two keys.
    for (int index : {-1, 0, 2, 9, 12, INT_MIN, INT_MAX})
        EXPECT_EQ(info.getTopRfSysInfoFromFile(index, true), "NONE") << index;

    writeDeviceFile(boardPath,
                    R"({"FPGA_VER":{"FPGA_BANK_0_VER":"v0","FPGA_BANK_1_VER":"v1","FPGA_BANK_2_VER":"v2"}})");
    writeDeviceFile(dspNames, "2\nA\nB\nC\n");
    for (int dsp : {-1, 16, INT_MIN, INT_MAX}) {
        EXPECT_EQ(info.checkDspString(dsp), "A") << dsp;
        EXPECT_EQ(info.checkDspVersion(dsp), "v0") << dsp;
    }
    writeDeviceFile("/DspCpri/name.txt", "1\nX\nY\n");
    writeDeviceFile("/DspCpri/version.txt", "3\nV0\nV1\nV2\n");
    const std::pair<QString, QString> answers[] = {
        {info.checkDspVersion(1), "v1"},     {info.checkDspVersion(2), ""},     {info.checkDspString(1), "B"},
        {info.checkDspString(2), ""},        {info.checkCpriDspString(0), "X"}, {info.checkCpriDspString(1), ""},
        {info.checkCpriDspVersion(0), "V0"}, {info.checkCpriDspVersion(1), ""}, {info.checkCpriDspVersion(2), ""},
    };
    for (size_t i = 0; i < std::size(answers); ++i)
        EXPECT_EQ(answers[i].first, answers[i].second) << "answer " << i;
    writeDeviceFile("/DspCpri/name.txt", "40\nA\n");
    for (int index : {10, 11, 16, -1, INT_MIN})
        EXPECT_EQ(info.checkCpriDspString(index), "") << index;
}

TEST_F(StateTest, DspNamesStayWhereNoLaterListReplacesThem)
{
    rfSystemInfo own; // its own name table
    writeDeviceFile(dspNames, "3\nA\nB\nC\n");
    EXPECT_EQ(own.checkDspString(1), "B");
    for (const char *unusable : {"0\nX\nY\n", "-2\nX\n", "three\nX\n", "2abc\nX\nY\n", "2.0\nX\nY\n"}) {
        writeDeviceFile(dspNames, unusable);
        EXPECT_EQ(own.getDspActiveCount(), 3) << unusable;
        EXPECT_EQ(own.checkDspString(1), "B") << unusable;
    }
    std::string list = "40\n";
    for (int i = 0; i < 40; ++i)
        list += "dsp" + std::to_string(i) + "\n";
    writeDeviceFile(dspNames, list);
    EXPECT_EQ(own.checkDspString(0), "dsp0");
    EXPECT_EQ(own.dspNames[29], "dsp29") << "the table holds 30 names";
    writeDeviceFile(dspNames, "1\nnew\n");
    EXPECT_EQ(own.checkDspString(0), "new");
    EXPECT_EQ(own.dspNames[1], "dsp1") << "a shorter list rewrites only its own entries";
    writeDeviceFile(dspNames, "3\nonly\n");
    EXPECT_EQ(own.checkDspString(1), "") << "a counted entry past the file's end is stored empty";
    EXPECT_EQ(own.dspNames[2], "");
    writeDeviceFile(dspNames, "3\nA\nB\nC\n");
    EXPECT_EQ(own.checkDspString(1), "B");
    fs::remove(dspNames);
    EXPECT_EQ(own.checkDspString(1), "") << "no name file, no name";
}
