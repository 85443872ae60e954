// The report tool as its users run it, a child process: the text report, the header, sections,
// sanitizing, whose identity tools answer, capture files, and misuse. (What it reports for a device
// is a device case: tests/devices.)
#include "DeviceTest.h"
#include "Rfsysinfo.h"

#include <QCryptographicHash>
#include <QFile>
#include <QRegularExpression>
#include <QSet>

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <filesystem>
#include <memory>

#include <unistd.h>

using namespace rfsitest;
namespace fs = std::filesystem;

namespace {

const QString sampleDevice = QStringLiteral(RFSI_TEST_SOURCE_DIR "/examples/device");
const QStringList sampleWithTools = {"--root", sampleDevice, "--allow-tools"};
const QStringList sampleSerials = {"KV721-24-0042", "DPB7-24-03117"};
const QString capturePath = QStringLiteral("/storage/capture.tgz");

void captureOf(const QStringList &source, const QString &epoch = {})
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("SOURCE_DATE_EPOCH", epoch); // empty: the time of the capture
    EXPECT_EQ(rfsysinfo(QStringList{"--capture", capturePath} + source, environment).status, 0);
}

// A capture's entries, one line each: name, type and mode in octal, owner, time and a hash of the
// content; and its manifest.
QStringList entriesOf(const QString &path, QJsonObject &manifest)
{
    QStringList entries;
    const std::unique_ptr<archive, int (*)(archive *)> reader(archive_read_new(), archive_read_free);
    archive_read_support_filter_gzip(reader.get());
    archive_read_support_format_tar(reader.get());
    archive_read_open_filename(reader.get(), QFile::encodeName(path).constData(), 65536);
    for (archive_entry *entry = nullptr; archive_read_next_header(reader.get(), &entry) == ARCHIVE_OK;) {
        QByteArray content(static_cast<int>(archive_entry_size(entry)), '\0');
        archive_read_data(reader.get(), content.data(), static_cast<size_t>(content.size()));
        if (entries.isEmpty())
            manifest = QJsonDocument::fromJson(content).object();
        entries << QStringLiteral("%1 %2 %3:%4 %5 %6")
                       .arg(archive_entry_pathname(entry))
                       .arg(archive_entry_mode(entry), 0, 8)
                       .arg(archive_entry_uid(entry))
                       .arg(archive_entry_gid(entry))
                       .arg(archive_entry_mtime(entry))
                       .arg(QString::fromLatin1(QCryptographicHash::hash(content, QCryptographicHash::Sha1).toHex()));
    }
    return entries;
}

} // namespace

class RfsysinfoTest : public DeviceTest
{
};

TEST_F(RfsysinfoTest, TextReportShowsEverySectionWithAlignedLabels)
{
    const ToolRun run = rfsysinfo(sampleWithTools);
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
    // The JSON form of a sanitized report is a device case; the text form renders the same lines.
    const ToolRun sanitized = rfsysinfo(sampleWithTools + QStringList{"--sanitize"});
    for (const QString &serial : sampleSerials)
        EXPECT_FALSE(sanitized.out.contains(serial)) << serial.toStdString();
    EXPECT_TRUE(sanitized.out.contains("<serial>") && sanitized.out.contains("KV721"));
}

TEST_F(RfsysinfoTest, TheLibrarysOwnMessagesStayOffTheReport)
{
    // The test's own device is empty: the library complains about the board description.
    const QStringList arguments = {"--json", "--section", "identity", "--section", "fpga"};
    const ToolRun quiet = rfsysinfo(arguments);
    ASSERT_EQ(quiet.status, 0);
    EXPECT_EQ(quiet.err, "");
    EXPECT_FALSE(parsedJson(quiet).isEmpty());
    const ToolRun verbose = rfsysinfo(arguments + QStringList{"--verbose"});
    EXPECT_TRUE(verbose.err.contains("File open fail!! /bin/DpbJsonInfo.json")) << verbose.err.toStdString();
    EXPECT_TRUE(verbose.err.contains(R"("/bin/getSicutil" ("-r", "-sol", "5", "ProductName"))"));
    EXPECT_EQ(verbose.out, quiet.out);
}

TEST_F(RfsysinfoTest, SectionsSelectWhatIsReported)
{
    QJsonObject json = parsedJson(rfsysinfo({"--json", "--section", "calibration", "--section", "rf"}));
    EXPECT_TRUE(json.take("calibration").isObject() && json.take("rf").isObject());
    EXPECT_EQ(json, QJsonObject({{"tool", "rfsysinfo"},
                                 {"version", RFSI_TEST_PACKAGE_VERSION},
                                 {"deviceTree", QJsonValue()},
                                 {"sanitized", false}}));
    const ToolRun text = rfsysinfo({"--section", "temperature"});
    EXPECT_TRUE(text.out.contains("\nTemperature\n"));
    EXPECT_FALSE(text.out.contains("Identity"));
}

TEST_F(RfsysinfoTest, TheMachinesToolsNeverAnswerForATreeOrACapture)
{
    writeDeviceFile("/storage/tree/storage/RFHW_Revision.info", "RF_REVISION=1/2/3\n");
    captureOf(sampleWithTools);
    writeDeviceFile("/bin/getSicutil", "#!/bin/sh\necho MACHINE\n", 0755);
    for (const QStringList &source :
         {QStringList{"--root", "/storage/tree", "--allow-tools"}, sampleWithTools, QStringList{"--root", capturePath}})
        EXPECT_FALSE(rfsysinfo(QStringList{"--section", "identity"} + source).out.contains("MACHINE"))
            << source[1].toStdString();
    EXPECT_TRUE(rfsysinfo({"--section", "identity"}).out.contains("MACHINE")) << "without --root it is the device";
    EXPECT_TRUE(fs::exists(sampleDevice.toStdString() + "/bin/getSicutil")) << "a tree must stay as it is";
}

TEST_F(RfsysinfoTest, ACaptureOfThisInstrumentReplaysItsReport)
{
    installSampleDevice(); // the test's own device is the instrument here
    captureOf({});
    QJsonObject replayed = parsedJson(rfsysinfo({"--json", "--root", capturePath}));
    QJsonObject device = parsedJson(rfsysinfo({"--json"}));
    EXPECT_EQ(replayed.take("deviceTree"), capturePath);
    EXPECT_TRUE(device.take("deviceTree").isNull());
    EXPECT_EQ(replayed, device);
}

TEST_F(RfsysinfoTest, ASanitizedCaptureHoldsNoSerialAndNoProgram)
{
    captureOf(sampleWithTools + QStringList{"--sanitize"});
    QProcess gzip;
    gzip.start("gzip", {"-dc", capturePath});
    gzip.waitForFinished(10000);
    const QByteArray unpacked = gzip.readAllStandardOutput();
    ASSERT_GT(unpacked.size(), 10000);
    for (const QString &serial : sampleSerials)
        EXPECT_FALSE(unpacked.contains(serial.toUtf8())) << serial.toStdString();
    EXPECT_FALSE(unpacked.contains("#!/bin/sh")) << "an identity tool was copied";
}

TEST_F(RfsysinfoTest, CapturesOfAnUnchangedDeviceDifferOnlyInTheManifestsTime)
{
    auto capturedBytes = [](const QString &epoch) {
        captureOf(sampleWithTools, epoch);
        QFile file(capturePath);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    };
    const QByteArray first = capturedBytes("1700000000");
    sleep(1); // a time that leaks in anywhere (the gzip header) then shows
    EXPECT_EQ(capturedBytes("1700000000"), first) << "same device, same time: the same bytes";
    QJsonObject early, late;
    const QStringList earlyEntries = entriesOf(capturePath, early);
    captureOf(sampleWithTools, "1800000000");
    const QStringList lateEntries = entriesOf(capturePath, late);
    ASSERT_GT(earlyEntries.size(), 20);
    EXPECT_EQ(lateEntries.mid(1), earlyEntries.mid(1)) << "only the manifest differs";
    EXPECT_TRUE(earlyEntries.front().startsWith("capture.json 100644 0:0 1700000000 "));
    EXPECT_TRUE(std::is_sorted(earlyEntries.begin() + 1, earlyEntries.end())) << "sorted after the manifest";
    EXPECT_EQ(earlyEntries.filter(" 100644 0:0 ").size(), earlyEntries.size()) << "owner root, mode 0644";
    EXPECT_EQ(early.take("captured"), "2023-11-14T22:13:20Z");
    late.remove("captured");
    EXPECT_EQ(late, early);
}

TEST_F(RfsysinfoTest, CheckExitStatusFollowsTheVerdictAndItsOptions)
{
    // The sample device passes; its dated calibration files are from 2025 (what each finding says
    // is a device case, expected-check.json).
    const std::pair<QStringList, int> cases[] = {
        {{}, 0},
        {{"--strict"}, 0},
        {{"--max-calibration-age", "36500"}, 0},
        {{"--max-calibration-age", "1"}, 0}, // warnings only
        {{"--max-calibration-age", "1", "--strict"}, 1},
    };
    for (const auto &[options, status] : cases) {
        const ToolRun run = rfsysinfo(QStringList{"--check"} + options + sampleWithTools);
        EXPECT_EQ(run.status, status) << options.join(' ').toStdString() << "\n" << run.out.toStdString();
        EXPECT_EQ(run.out.count("calibration.old"), options.contains("1") ? 1 : 0) << run.out.toStdString();
        EXPECT_TRUE(run.out.endsWith(status ? "(strict: warnings fail)\n" : "\n"));
    }
    EXPECT_EQ(rfsysinfo({"--check"}).status, 1) << "the test's own device is empty";
}

TEST_F(RfsysinfoTest, OutputIsWrittenWholeOrNotAtAll)
{
    fs::create_directories("/storage/out");
    for (const QStringList &format : {QStringList{"--metrics"}, QStringList{"--json"}, QStringList{"--check"}}) {
        const ToolRun run = rfsysinfo(format + QStringList{"--output", "/storage/out/report"} + sampleWithTools);
        EXPECT_EQ(run.out, "");
        QFile written("/storage/out/report");
        ASSERT_TRUE(written.open(QIODevice::ReadOnly));
        EXPECT_EQ(QString::fromUtf8(written.readAll()), rfsysinfo(format + sampleWithTools).out);
    }
    EXPECT_EQ(fs::directory_iterator("/storage/out")->path(), "/storage/out/report") << "a temporary file was left";
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
        {{"--metrics", "--json"}, 2},
        {{"--check", "--section", "rf"}, 2},
        {{"--strict"}, 2},
        {{"--check", "--max-calibration-age", "soon"}, 2},
        {{"--metrics", "--output", "/storage/no-such-folder/x.prom"}, 1},
    };
    for (const auto &[arguments, status] : cases) {
        const ToolRun run = rfsysinfo(arguments);
        EXPECT_EQ(run.status, status) << arguments.join(' ').toStdString();
        EXPECT_EQ(run.out, "");
        EXPECT_TRUE(run.err.startsWith("rfsysinfo: ") && run.err.count('\n') == 1) << run.err.toStdString();
    }
}
