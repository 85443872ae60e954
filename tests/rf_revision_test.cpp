// RF module revisions: the RF_REVISION value whole (the summary) and split into module fields.
#include "DeviceTest.h"
#include "rfSystem_Info.h"

#include <climits>

using namespace rfsitest;

namespace {

const std::string rfRevisionPath = "/storage/RFHW_Revision.info";

void writeRfRevisionFile(const std::string &content)
{
    writeDeviceFile(rfRevisionPath, content);
}

} // namespace

class RfRevisionTest : public DeviceTest
{
protected:
    rfSystemInfo &info = *rfSystemInfo::param();
};

TEST_F(RfRevisionTest, ModuleRevisionsTakeOneFieldEach)
{
    struct Case
    {
        const char *file; // nullptr: no file
        QString summary;
        int yro, mixer, dnc;
        std::string yroText, mixerText, dncText;
    };
    const Case cases[] = {
        {nullptr, "NONE", 1, 1, 1, "1.0", "1.0", "1.0"},
        {"RF_REVISION=\n", "NONE", 1, 1, 1, "1.0", "1.0", "1.0"},
        // Without the key the lookup's default "r" is the value: one field, and not a number.
        {"OTHER=1\n", "r", 0, 1, 1, "r", "1.0", "1.0"},
        {"RF_REVISION=2.9/1.0/3.5\n", "2.9/1.0/3.5", 2, 1, 3, "2.9", "1.0", "3.5"},
        {"RF_REVISION=2.0//3.0\n", "2.0//3.0", 2, 0, 3, "2.0", "", "3.0"},
        {"RF_REVISION=1.0 / 2.0 / 3.0\n", "1.0 / 2.0 / 3.0", 1, 2, 3, "1.0 ", " 2.0 ", " 3.0"},
        {"RF_REVISION=1.0/2.0/3.0/4.0\n", "1.0/2.0/3.0/4.0", 1, 2, 3, "1.0", "2.0", "3.0"},
        {"RF_REVISION=-1.5/abc/1e12\n", "-1.5/abc/1e12", -1, 0, INT_MAX, "-1.5", "abc", "1e12"},
        {"RF_REVISION=-1e12/nan/2147483647.9\n", "-1e12/nan/2147483647.9", INT_MIN, 0, INT_MAX, "-1e12", "nan",
         "2147483647.9"},
        // Fields the value lacks answer the defaults.
        {"RF_REVISION=2.5\n", "2.5", 2, 1, 1, "2.5", "1.0", "1.0"},
        {"RF_REVISION=2.5/3.5\n", "2.5/3.5", 2, 3, 1, "2.5", "3.5", "1.0"},
        {"[General]\nRF_REVISION=4/5/6\n", "4/5/6", 4, 5, 6, "4", "5", "6"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.file ? c.file : "(no file)");
        removeDevicePath(rfRevisionPath);
        if (c.file)
            writeRfRevisionFile(c.file);
        EXPECT_EQ(info.checkRFModuleRevision(), c.summary);
        EXPECT_EQ(info.getYroModuleRevision(), c.yro);
        EXPECT_EQ(info.getMixerModuleRevision(), c.mixer);
        EXPECT_EQ(info.getDncModuleRevision(), c.dnc);
        EXPECT_EQ(info.getYroModuleStringRevision(), c.yroText);
        EXPECT_EQ(info.getMixerModuStringRevision(), c.mixerText);
        EXPECT_EQ(info.getDncModuleStringRevision(), c.dncText);
    }
}

TEST_F(RfRevisionTest, OnlyGetRFModuleRevisionStoresTheSummary)
{
    writeRfRevisionFile("RF_REVISION=2.1/1.0/3.0\n");
    rfSystemInfo::RFHwRevision = "kept";
    EXPECT_EQ(info.checkRFModuleRevision(), "2.1/1.0/3.0");
    EXPECT_EQ(info.getYroModuleRevision(), 2);
    EXPECT_EQ(rfSystemInfo::RFHwRevision, "kept") << "the read-only queries must not store";

    EXPECT_EQ(info.getRFModuleRevision(), "2.1/1.0/3.0");
    EXPECT_EQ(rfSystemInfo::RFHwRevision, "2.1/1.0/3.0");

    removeDevicePath(rfRevisionPath);
    EXPECT_EQ(info.getRFModuleRevision(), "NONE");
    EXPECT_EQ(rfSystemInfo::RFHwRevision, "NONE");
    EXPECT_FALSE(rfSystemInfo::updateRFRevsionStatus);
}

TEST_F(RfRevisionTest, EveryCallSeesTheFileAsItIsNow)
{
    writeRfRevisionFile("RF_REVISION=1/1/1\n");
    EXPECT_EQ(info.getDncModuleRevision(), 1);
    writeRfRevisionFile("RF_REVISION=1/1/7\n"); // same size: only the new modification time tells
    EXPECT_EQ(info.getDncModuleRevision(), 7);
    EXPECT_EQ(info.getDncModuleStringRevision(), "7");
}
