// The board description: loading /bin/DpbJsonInfo.json, its failure lines, and the FPGA bank versions.
#include "DeviceTest.h"
#include "rfSystem_Info.h"

using namespace rfsitest;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const std::string boardPath = "/bin/DpbJsonInfo.json";
const std::string openFailureLine =
    "[rfSystemInfo/rfSystem_Info:loadDpbSysmtemInfo:410] File open fail!! /bin/DpbJsonInfo.json\n";
const std::string nullDocumentLine = "## FlashJSonFile is Null\n";

} // namespace

class BoardDescriptionTest : public DeviceTest
{
protected:
    rfSystemInfo info; // its own document, null until the first load
};

TEST_F(BoardDescriptionTest, FpgaVersionIsTheStringMemberOfTheFpgaSection)
{
    struct Case
    {
        std::string file;
        QString key, version;
        int load;
        std::string printed;
    };
    const std::string banks = R"({"FPGA_VER":{"FPGA_BANK_3_VER":"3.2.1","FPGA_BANK_4_VER":42,)"
                              R"("FPGA_BANK_5_VER":"","FPGA_BANK_6_VER":"  6.0 "},"OTHER":{"FPGA_BANK_7_VER":"x"}})";
    const Case cases[] = {
        {banks, "FPGA_BANK_3_VER", "3.2.1", 0, ""},
        {banks, "FPGA_BANK_4_VER", "1000", 0, ""}, // a number is no version text
        {banks, "FPGA_BANK_5_VER", "", 0, ""},     // an empty string is one
        {banks, "FPGA_BANK_6_VER", "  6.0 ", 0, ""},
        {banks, "FPGA_BANK_7_VER", "1000", 0, ""}, // only the FPGA section counts
        {banks, "FPGA_BANK_15_VER", "1000", 0, ""},
        {banks, "", "1000", 0, ""},
        {R"({"FPGA_VER":"3.2.1"})", "FPGA_BANK_3_VER", "1000", 0, ""},
        {R"([{"FPGA_VER":{"FPGA_BANK_3_VER":"3.2.1"}}])", "FPGA_BANK_3_VER", "1000", 0, ""},
        {"{\r\n\"FPGA_VER\":{\"FPGA_BANK_0_VER\":\"crlf\"}\r\n}\r\n", "FPGA_BANK_0_VER", "crlf", 0, ""},
        {std::string(R"({"FPGA_VER":{"FPGA_BANK_0_VER":"before-nul"}})") + '\0' + "trailing garbage", "FPGA_BANK_0_VER",
         "before-nul", 0, ""},
        {R"({"FPGA_VER":{"FPGA_BANK_0_VER":"1.0")", "FPGA_BANK_0_VER", "1000", -1, nullDocumentLine},
        {"", "FPGA_BANK_0_VER", "1000", -1, nullDocumentLine},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.file);
        writeDeviceFile(boardPath, c.file);
        CaptureStdout();
        EXPECT_EQ(info.loadDpbSysmtemInfo(), c.load);
        EXPECT_EQ(info.getFpgaVersionrfSystemInfo(c.key), c.version);
        EXPECT_EQ(GetCapturedStdout(), c.printed + c.printed);
        EXPECT_EQ(info.dpbJsonDoc.isNull(), c.load != 0);
    }
}

TEST_F(BoardDescriptionTest, DocumentOutlivesTheFileButNotABadReplacement)
{
    CaptureStdout();
    EXPECT_EQ(info.loadDpbSysmtemInfo(), -1);
    EXPECT_EQ(info.getFpgaVersionrfSystemInfo("FPGA_BANK_0_VER"), "1000");
    EXPECT_EQ(GetCapturedStdout(), openFailureLine + openFailureLine);

    writeDeviceFile(boardPath, R"({"FPGA_VER":{"FPGA_BANK_0_VER":"0.9"}})");
    EXPECT_EQ(info.getFpgaVersionrfSystemInfo("FPGA_BANK_0_VER"), "0.9");

    removeDevicePath(boardPath);
    CaptureStdout();
    EXPECT_EQ(info.getFpgaVersionrfSystemInfo("FPGA_BANK_0_VER"), "0.9");
    EXPECT_EQ(GetCapturedStdout(), openFailureLine);

    writeDeviceFile(boardPath, "not json");
    CaptureStdout();
    EXPECT_EQ(info.getFpgaVersionrfSystemInfo("FPGA_BANK_0_VER"), "1000");
    EXPECT_EQ(GetCapturedStdout(), nullDocumentLine);
    EXPECT_TRUE(info.dpbJsonDoc.isNull());
}
