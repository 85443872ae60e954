// Calibration files under /bin: presence reports and dated statuses.
#include "DeviceRoot.h"
#include "DeviceTest.h"
#include "rfSystem_Info.h"

#include <filesystem>

using namespace rfsitest;
namespace fs = std::filesystem;

class CalibrationTest : public DeviceTest
{
protected:
    rfSystemInfo &info = *rfSystemInfo::param();

    QStringList presenceReports()
    {
        return {info.checkFlatnessFile(), info.checkDncDacFile(), info.checkYroDacFile(), info.checkYroSpurFile()};
    }
};

TEST_F(CalibrationTest, PresenceReportsListEachGroupInItsOrder)
{
    struct Case
    {
        std::vector<std::string> present;
        QStringList reports; // flatness, DNC DAC, YRO DAC, YRO spur
    };
    const Case cases[] = {
        {{}, {"NONE/NONE/NONE", "NONE/NONE", "NONE/NONE", "NONE/NONE"}},
        {{"/bin/High_10_100M.csv", "/bin/dncDac2.csv", "/bin/nyroFreq1stlow.csv", "/bin/nyro_spur_high.csv"},
         {"NONE/NONE/OK", "NONE/OK", "OK/NONE", "NONE/OK"}},
        {{"/bin/DNC_10_100M.csv", "/bin/dncDac1.csv", "/bin/nyroFreq1sthigh.csv", "/bin/nyro_spur_low.csv"},
         {"OK/NONE/NONE", "OK/NONE", "NONE/OK", "OK/NONE"}},
        {{"/bin/DNC_10_100M.csv", "/bin/Low_10_100M.csv", "/bin/High_10_100M.csv"},
         {"OK/OK/OK", "NONE/NONE", "NONE/NONE", "NONE/NONE"}},
    };
    for (const Case &c : cases) {
        deviceroot::reset();
        for (const std::string &path : c.present)
            writeDeviceFile(path, "");
        EXPECT_EQ(presenceReports(), c.reports);
    }
}

TEST_F(CalibrationTest, PresenceCountsFoldersAndLinksOnlyToExistingTargets)
{
    fs::create_directory("/bin/DNC_10_100M.csv");
    fs::create_symlink("/bin/missing-target", "/bin/Low_10_100M.csv");
    writeDeviceFile("/storage/target.csv", "x");
    fs::create_symlink("/storage/target.csv", "/bin/High_10_100M.csv");
    EXPECT_EQ(info.checkFlatnessFile(), "OK/NONE/OK");
}

TEST_F(CalibrationTest, DatedStatusCarriesTheCleanedFirstLine)
{
    const std::pair<std::string, QString> cases[] = {
        {"2025-01-31\n", "OK(2025-01-31)"},
        {"  2025-01-31\t build   7 \r\nsecond line\n", "OK(2025-01-31 build 7)"},
        {"no line end", "OK(no line end)"},
        {"", "OK()"},
        {" \t \n2025-01-31\n", "OK()"}, // only the first line counts, even when blank
        {"NONE\n", "OK(NONE)"},
        {std::string("2025\0-hidden\n", 13), "OK(2025)"},
    };
    for (const auto &[content, status] : cases) {
        writeDeviceFile("/bin/basic_freq_cal.csv", content);
        EXPECT_EQ(info.checkBasicFreqCalFile(), status) << content;
    }
}

TEST_F(CalibrationTest, EachDatedQueryReadsItsOwnFile)
{
    using Query = QString (rfSystemInfo::*)();
    const std::pair<Query, std::string> queries[] = {
        {&rfSystemInfo::checkBasicFreqCalFile, "/bin/basic_freq_cal.csv"},
        {&rfSystemInfo::checkBaseHighFreqCalFile, "/bin/freq_cal_high.csv"},
        {&rfSystemInfo::checkBaseLowFreqCalFile, "/bin/freq_cal_low.csv"},
        {&rfSystemInfo::checkDncFreqCalFile, "/bin/dnc_freq_cal.csv"},
        {&rfSystemInfo::checkThirdOffsetFile, "/bin/thirdAmpOffset.dat"},
    };
    for (const auto &[query, path] : queries)
        EXPECT_EQ((info.*query)(), "NONE(NONE)") << path;
    for (const auto &[query, path] : queries)
        writeDeviceFile(path, path + "\nrest\n");
    for (const auto &[query, path] : queries)
        EXPECT_EQ((info.*query)(), QString::fromStdString("OK(" + path + ")"));
}
