// The report tool, run as the people who use it run it: a child process, on the test's device or on
// the sample device tree through --root.
#include "DeviceTest.h"
#include "Rfsysinfo.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>

#include <filesystem>

using namespace rfsitest;
namespace fs = std::filesystem;

namespace {

const QString sampleDevice = QStringLiteral(RFSI_TEST_SOURCE_DIR "/examples/device");
const QStringList sampleSerials = {"KV721-24-0042", "DPB7-24-03117"};

// The value at a path of member names ("fpga/banks/FPGA_BANK_0_VER"); undefined when it is absent.
QJsonValue member(const QJsonObject &document, const QString &path)
{
    QJsonValue value = document;
    for (const QString &name : path.split('/'))
        value = value.toObject().value(name);
    return value;
}

} // namespace

class RfsysinfoTest : public DeviceTest
{
};

TEST_F(RfsysinfoTest, TextReportShowsEverySectionWithAlignedLabels)
{
    const ToolRun run = rfsysinfo({"--root", sampleDevice, "--allow-tools"});
    ASSERT_EQ(run.status, 0) << run.err.toStdString();
    EXPECT_EQ(run.err, "");
    for (const char *expected :
         {"\nIdentity\n", "\nInventory\n", "\nRF modules\n", "\nFPGA banks\n", "\nDSP images\n", "\nCPRI DSP images\n",
          "\nTemperature\n", "\nCalibration files\n", "KV721-24-0042", "2 (2.1)",
          "DSP_DEMOD_V2.8.0.bin (version 2.8.0)", "OK(2025-09-30 14:11 CAL-STATION-3)"})
        EXPECT_TRUE(run.out.contains(expected)) << expected;
    // Every labelled line has its value in one column.
    QSet<int> valueColumns;
    for (const QString &line : run.out.split('\n'))
        if (line.startsWith("  ") && !line.startsWith("   "))
            valueColumns << static_cast<int>(line.indexOf(QRegularExpression("\\S"), line.indexOf("  ", 2) + 2));
    EXPECT_EQ(valueColumns.size(), 1) << run.out.toStdString();
}

TEST_F(RfsysinfoTest, JsonReportHasEveryKeyAndStaysValidWhenTheLibraryComplains)
{
    const QStringList keys = {"tool",
                              "version",
                              "deviceTree",
                              "sanitized",
                              "identity/model",
                              "identity/serialNumber",
                              "identity/firmwareVersion",
                              "identity/uiVersion",
                              "identity/rfSerial",
                              "identity/identityToolsRun",
                              "inventory/DPB_HardwareSetName",
                              "inventory/TOP_ProductSerialNumber",
                              "rf/summary",
                              "rf/yro/revision",
                              "rf/mixer/text",
                              "rf/dnc/revision",
                              "fpga/boardDescriptionLoaded",
                              "fpga/banks/FPGA_BANK_14_VER",
                              "dsp/activeCount",
                              "dsp/images",
                              "cpri/activeCount",
                              "cpri/images",
                              "temperature/report",
                              "temperature/readings/P",
                              "calibration/flatness",
                              "calibration/dncDac",
                              "calibration/yroDac",
                              "calibration/yroSpur",
                              "calibration/basicFreqCal",
                              "calibration/baseHighFreqCal",
                              "calibration/baseLowFreqCal",
                              "calibration/dncFreqCal",
                              "calibration/thirdOffset"};

    const ToolRun sample = rfsysinfo({"--json", "--root", sampleDevice, "--allow-tools"});
    ASSERT_EQ(sample.status, 0);
    const QJsonObject report = parsedJson(sample);
    for (const QString &key : keys)
        EXPECT_FALSE(member(report, key).isUndefined()) << key.toStdString();
    EXPECT_EQ(member(report, "rf/yro/revision").toInt(), 2);
    EXPECT_EQ(member(report, "dsp/images").toArray().at(2).toObject().value("version").toString(), "2.8.0");
    EXPECT_EQ(member(report, "cpri/images").toArray().size(), 2);

    // The test's own device is empty: the board description's failure lines must stay off the report.
    const ToolRun empty = rfsysinfo({"--json"});
    ASSERT_EQ(empty.status, 0);
    const QJsonObject emptyReport = parsedJson(empty);
    for (const QString &key : keys)
        EXPECT_FALSE(member(emptyReport, key).isUndefined()) << key.toStdString();
    EXPECT_FALSE(member(emptyReport, "fpga/boardDescriptionLoaded").toBool());
    EXPECT_EQ(member(emptyReport, "identity/model").toString(), "KV720");
}

TEST_F(RfsysinfoTest, SanitizeLeavesNoSerialAnywhere)
{
    for (const QStringList &format : {QStringList(), QStringList{"--json"}}) {
        const ToolRun run = rfsysinfo(format + QStringList{"--sanitize", "--root", sampleDevice, "--allow-tools"});
        ASSERT_EQ(run.status, 0);
        for (const QString &serial : sampleSerials)
            EXPECT_FALSE(run.out.contains(serial)) << serial.toStdString() << " in\n" << run.out.toStdString();
        EXPECT_TRUE(run.out.contains("<serial>"));
        EXPECT_TRUE(run.out.contains("KV721")) << "the model is no serial";
    }
    // A serial inside other answers goes too; markers that a serial field may hold stay.
    writeDeviceFile("/storage/tree/tmp/SystemInventoryInfo.info",
                    "TOP_ProductSerialNumber=S-977\nDPB_HardwareSetName=set of S-977\nDPB_SerialNumber=\n");
    writeDeviceFile("/storage/tree/Dsp/name.txt", "1\nimage-S-977.bin\n");
    const ToolRun tree = rfsysinfo({"--sanitize", "--json", "--root", "/storage/tree"});
    EXPECT_FALSE(tree.out.contains("S-977")) << tree.out.toStdString();
    EXPECT_TRUE(tree.out.contains("image-<serial>.bin"));
    EXPECT_EQ(member(parsedJson(tree), "calibration/flatness").toString(), "NONE/NONE/NONE");
}

TEST_F(RfsysinfoTest, SectionsSelectWhatIsReported)
{
    const ToolRun json = rfsysinfo({"--json", "--section", "calibration", "--section", "rf"});
    ASSERT_EQ(json.status, 0);
    QStringList keys = parsedJson(json).keys();
    keys.sort();
    EXPECT_EQ(keys, QStringList({"calibration", "deviceTree", "rf", "sanitized", "tool", "version"}));

    const ToolRun text = rfsysinfo({"--section", "temperature"});
    EXPECT_TRUE(text.out.contains("\nTemperature\n"));
    EXPECT_FALSE(text.out.contains("Identity"));
}

TEST_F(RfsysinfoTest, CopiedTreeToolsRunOnlyWhenAllowedAndNeverTheMachinesOwn)
{
    const ToolRun withoutTools = rfsysinfo({"--json", "--section", "identity", "--root", sampleDevice});
    const QJsonObject identity = parsedJson(withoutTools).value("identity").toObject();
    EXPECT_EQ(identity.value("model").toString(), "KV720");
    EXPECT_EQ(identity.value("serialNumber").toString(), "SERIALNOTSET");
    EXPECT_FALSE(identity.value("identityToolsRun").toBool());
    EXPECT_TRUE(fs::exists(RFSI_TEST_SOURCE_DIR "/examples/device/bin/getSicutil")) << "the tree must stay as it is";

    // A tree without tools, on a machine that has one: the machine's tool must not answer for the tree.
    writeDeviceFile("/bin/getSicutil", "#!/bin/sh\necho MACHINE\n", 0755);
    writeDeviceFile("/storage/tree/storage/RFHW_Revision.info", "RF_REVISION=1/2/3\n");
    const ToolRun treeWithoutTools =
        rfsysinfo({"--section", "identity", "--section", "rf", "--root", "/storage/tree", "--allow-tools"});
    EXPECT_FALSE(treeWithoutTools.out.contains("MACHINE")) << treeWithoutTools.out.toStdString();
    EXPECT_TRUE(treeWithoutTools.out.contains("1/2/3"));
    EXPECT_EQ(rfsysinfo({"--section", "identity"}).out.contains("MACHINE"), true) << "without --root it is the device";
}

TEST_F(RfsysinfoTest, MisuseAndUnreadableTreesExitWithOneLineReasons)
{
    const std::pair<QStringList, int> cases[] = {
        {{"--bogus"}, 2},
        {{"--section", "nope"}, 2},
        {{"extra-argument"}, 2},
        {{"--root"}, 2},
        {{"--root", "/storage/no-such-tree"}, 3},
        {{"--capture", "/storage/c.tgz", "--json"}, 2},
        {{"--capture", "/storage/no-such-folder/c.tgz"}, 1},
    };
    for (const auto &[arguments, status] : cases) {
        const ToolRun run = rfsysinfo(arguments);
        EXPECT_EQ(run.status, status) << arguments.join(' ').toStdString();
        EXPECT_EQ(run.out, "");
        EXPECT_TRUE(run.err.startsWith("rfsysinfo: ") && run.err.count('\n') == 1) << run.err.toStdString();
    }
}

TEST_F(RfsysinfoTest, VerboseShowsTheLibrarysOwnMessagesOnStandardError)
{
    const QStringList arguments = {"--section", "identity", "--section", "fpga"};
    const ToolRun quiet = rfsysinfo(arguments);
    EXPECT_EQ(quiet.err, "");
    const ToolRun verbose = rfsysinfo(arguments + QStringList{"--verbose"});
    EXPECT_TRUE(verbose.err.contains("File open fail!! /bin/DpbJsonInfo.json")) << verbose.err.toStdString();
    EXPECT_TRUE(verbose.err.contains(R"("/bin/getSicutil" ("-r", "-sol", "5", "ProductName"))"));
    EXPECT_EQ(verbose.out, quiet.out);
}
