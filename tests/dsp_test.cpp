// DSP and CPRI DSP images: counted lists, the acceptance of indices, retained names and versions.
#include "DeviceTest.h"
#include "rfSystem_Info.h"

using namespace rfsitest;

namespace {

const std::string dspNames = "/Dsp/name.txt";
const std::string cpriNames = "/DspCpri/name.txt";
const std::string cpriVersions = "/DspCpri/version.txt";

// Banks 0..15 with version "v<bank>".
void writeBoardDescription()
{
    std::string banks;
    for (int bank = 0; bank < 16; ++bank)
        banks += (bank ? "," : "") + std::string("\"FPGA_BANK_") + std::to_string(bank) + "_VER\":\"v" +
                 std::to_string(bank) + "\"";
    writeDeviceFile("/bin/DpbJsonInfo.json", "{\"FPGA_VER\":{" + banks + "}}");
}

} // namespace

class DspTest : public DeviceTest
{
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        writeBoardDescription();
    }
    rfSystemInfo info; // its own name table
};

TEST_F(DspTest, WithoutNameFileThreeDspsAnswerVersionsButNoNames)
{
    EXPECT_EQ(info.getDspActiveCount(), 3);
    for (int dsp = 0; dsp < 3; ++dsp) {
        EXPECT_EQ(info.checkDspString(dsp), "") << dsp;
        EXPECT_EQ(info.checkDspVersion(dsp), QString("v%1").arg(dsp));
    }
    for (int dsp : {3, 4, 15}) { // from the count on, indices are rejected
        EXPECT_EQ(info.checkDspVersion(dsp), "") << dsp;
        EXPECT_EQ(info.checkDspString(dsp), "") << dsp;
    }
}

TEST_F(DspTest, NamesComeFromTheCountedList)
{
    writeDeviceFile(dspNames, "2\nA\nB  \nC\n");
    EXPECT_EQ(info.getDspActiveCount(), 2);
    EXPECT_EQ(info.checkDspString(0), "A");
    EXPECT_EQ(info.checkDspString(1), "B  ");
    EXPECT_EQ(info.checkDspString(2), "");
    // Negative indices and those above 15 stand for DSP 0.
    for (int dsp : {-1, 16, INT_MIN, INT_MAX}) {
        EXPECT_EQ(info.checkDspString(dsp), "A") << dsp;
        EXPECT_EQ(info.checkDspVersion(dsp), "v0") << dsp;
    }
    writeDeviceFile(dspNames, "2\r\nA\r\nB\r\n");
    EXPECT_EQ(info.checkDspString(1), "B");
}

TEST_F(DspTest, ShortListReadsEmptyNamesAndUnusableCountsKeepEarlierNames)
{
    writeDeviceFile(dspNames, "5\nA\n");
    EXPECT_EQ(info.getDspActiveCount(), 5);
    EXPECT_EQ(info.checkDspString(0), "A");
    EXPECT_EQ(info.checkDspString(4), "");

    writeDeviceFile(dspNames, "3\nA\nB\nC\n");
    EXPECT_EQ(info.checkDspString(1), "B");
    for (const char *unusable : {"0\nX\nY\n", "-2\nX\n", "three\nX\n"}) {
        writeDeviceFile(dspNames, unusable);
        EXPECT_EQ(info.getDspActiveCount(), 3) << unusable;
        EXPECT_EQ(info.checkDspString(1), "B") << unusable;
    }
}

TEST_F(DspTest, CpriListsAnswerByIndexWithoutNormalising)
{
    struct Case
    {
        const char *names;    // nullptr: no file
        const char *versions; // nullptr: no file
        int count;
        std::vector<QString> namesByIndex, versionsByIndex; // indices 0, 1, 2, ...
    };
    const Case cases[] = {
        {nullptr, nullptr, 2, {"", "", "", ""}, {"", "", "", ""}},
        {"1\nX\n", nullptr, 1, {"X", "", ""}, {"", "", ""}},
        {nullptr, "2\nV0\nV1\n", 2, {"", ""}, {"V0", "V1", ""}},
        {"1\nX\n", "3\nV0\nV1\nV2\n", 1, {"X", ""}, {"V0", "", ""}}, // the name file's count decides
        {"3\nA\nB\nC\n", "0\nV0\n", 3, {"A", "B", "C", ""}, {"", "", "", ""}},
        {"2\r\nA\r\nX\r\n", "2\nV0\n", 2, {"A", "X", ""}, {"V0", "", ""}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.names ? c.names : "(no name file)");
        removeDevicePath(cpriNames);
        removeDevicePath(cpriVersions);
        if (c.names)
            writeDeviceFile(cpriNames, c.names);
        if (c.versions)
            writeDeviceFile(cpriVersions, c.versions);
        EXPECT_EQ(info.getCpriDspActiveCount(), c.count);
        for (size_t i = 0; i < c.namesByIndex.size(); ++i)
            EXPECT_EQ(info.checkCpriDspString(static_cast<int>(i)), c.namesByIndex[i]) << i;
        for (size_t i = 0; i < c.versionsByIndex.size(); ++i)
            EXPECT_EQ(info.checkCpriDspVersion(static_cast<int>(i)), c.versionsByIndex[i]) << i;
    }
}

TEST_F(DspTest, LongListsKeepWhatTheirTablesHold)
{
    std::string list = "40\n";
    for (int i = 0; i < 40; ++i)
        list += "dsp" + std::to_string(i) + "\n";
    writeDeviceFile(dspNames, list);
    writeDeviceFile(cpriNames, list);
    EXPECT_EQ(info.getDspActiveCount(), 40);
    EXPECT_EQ(info.checkDspString(15), "dsp15");
    EXPECT_EQ(info.dspNames[29], "dsp29");
    // Entry 15 of the bank keys is empty, so DSP 15 has the default version even with a bank 15.
    EXPECT_EQ(info.checkDspVersion(15), "1000");

    EXPECT_EQ(info.getCpriDspActiveCount(), 40);
    EXPECT_EQ(info.checkCpriDspString(9), "dsp9");
    for (int index : {10, 11, -1, INT_MIN}) // accepted by the count, but no list holds them
        EXPECT_EQ(info.checkCpriDspString(index), "") << index;
}
