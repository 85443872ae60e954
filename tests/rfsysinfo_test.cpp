// The report tool as its users run it, a child process: the text report, the header, sections,
// sanitizing, whose identity tools answer, capture files and output files. (What it reports for a device
// is a device case, and what it refuses is in tests/device_cases_test.sh.)
#include "DeviceTest.h"
#include "Rfsysinfo.h"

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QRegularExpression>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <tuple>

#include <sys/mount.h>
#include <sys/stat.h>
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

// What tar makes of the capture: its listing (mode, owner, size, time, name), or what entries hold.
QString tarOf(const QStringList &arguments)
{
    QProcess tar;
    tar.start("tar", arguments + QStringList{"-f", capturePath});
    tar.waitForFinished(30000);
    return QString::fromUtf8(tar.readAllStandardOutput());
}

QJsonObject manifestOfCapture()
{
    return QJsonDocument::fromJson(tarOf({"-xOz", "capture.json"}).toUtf8()).object();
}

} // namespace

class RfsysinfoTest : public DeviceTest
{
};

TEST_F(RfsysinfoTest, NothingWrittenWithSanitizeHoldsASerialNumber)
{
    // A backup folder named after the instrument, a profile that pins another unit's serial numbers,
    // and a saved report of another unit.
    const std::string named = "/storage/KV721-24-0042";
    fs::copy(sampleDevice.toStdString(), named, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    const QStringList source = {"--root", QString::fromStdString(named), "--allow-tools", "--sanitize"};
    const QString profile = QStringLiteral(RFSI_TEST_SOURCE_DIR "/tests/devices/profiles/kv721-another-unit.json");
    const QString anotherUnit = QStringLiteral(RFSI_TEST_SOURCE_DIR "/tests/devices/reports/another-unit.json");
    const QStringList withheld = sampleSerials + QStringList{"KV721-24-9999", "DPB7-24-09999", "KV721-24-0077"};
    const QStringList forms[] = {
        {},
        {"--json"},
        {"--check", "--expect", profile},
        {"--check", "--json", "--expect", profile},
        {"--metrics", "--expect", profile},
        {"--diff", anotherUnit},
        {"--diff", anotherUnit, "--json"},
        {"--diff", QStringLiteral(RFSI_TEST_SOURCE_DIR "/tests/devices/reports/sample-device.json")},
    };
    for (const QStringList &form : forms) {
        const ToolRun run = rfsysinfo(form + source);
        SCOPED_TRACE(form.join(' ').toStdString() + "\n" + run.out.toStdString());
        // The unit's own saved report differs in nothing once both sides are sanitized alike.
        const bool sameUnit = form.value(1).endsWith("sample-device.json");
        EXPECT_TRUE(run.out.contains(sameUnit ? "no differences between report <withheld> and device tree"
                                     : form.contains("--diff") ? "5.010.004"
                                                               : "KV721") &&
                    run.err.isEmpty())
            << run.err.toStdString();
        for (const QString &serial : withheld)
            EXPECT_FALSE(run.out.contains(serial)) << serial.toStdString();
    }
    // The capture holds neither, and none of the tree's programs.
    captureOf(source);
    const QString unpacked = tarOf({"-xOz"}); // what the entries hold
    ASSERT_GT(unpacked.size(), 5000);
    for (const QString &serial : sampleSerials)
        EXPECT_FALSE(unpacked.contains(serial)) << serial.toStdString();
    EXPECT_FALSE(unpacked.contains("#!/bin/sh")) << "an identity tool was copied";
}

// Sections select what is reported; the library's own messages stay off the report, on standard error
// with --verbose only.
TEST_F(RfsysinfoTest, SectionsSelectWhatIsReportedAndTheLibrarysMessagesStayOffIt)
{
    // The test's own device is empty: the library complains about the board description.
    const QStringList arguments = {"--json", "--section", "identity", "--section", "fpga"};
    const ToolRun quiet = rfsysinfo(arguments);
    EXPECT_EQ(quiet.status, 0);
    EXPECT_EQ(quiet.err, "");
    QJsonObject json = parsedJson(quiet);
    EXPECT_TRUE(json.take("identity").isObject() && json.take("fpga").isObject());
    EXPECT_EQ(json, QJsonObject({{"tool", "rfsysinfo"},
                                 {"version", RFSI_TEST_PACKAGE_VERSION},
                                 {"deviceTree", QJsonValue()},
                                 {"sanitized", false}}));
    const ToolRun verbose = rfsysinfo(arguments + QStringList{"--verbose"});
    EXPECT_TRUE(verbose.err.contains("File open fail!! /bin/DpbJsonInfo.json")) << verbose.err.toStdString();
    EXPECT_TRUE(verbose.err.contains(R"("/bin/getSicutil" ("-r", "-sol", "5", "ProductName"))"));
    EXPECT_EQ(verbose.out, quiet.out);
    const ToolRun text = rfsysinfo({"--section", "temperature"});
    EXPECT_TRUE(text.out.contains("\nTemperature\n") && !text.out.contains("Identity")) << text.out.toStdString();
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

// The caps of a capture at their edges: a file of exactly 16 MiB is kept whole, one byte more is cut
// and named, and files past 64 MiB in all are cut; an identity tool's answer of over a mebibyte is kept
// whole and replays, but one that would take the manifest past 16 MiB makes no capture at all.
TEST_F(RfsysinfoTest, ACaptureKeepsWhatItsCapsAllowAndReadsItAllBack)
{
    std::string content = "2025-01-01 cal\n";
    for (const qint64 size : {qint64{16} << 20, (qint64{16} << 20) + 1}) {
        content.resize(static_cast<size_t>(size), 'x');
        writeDeviceFile("/bin/thirdAmpOffset.dat", content);
        captureOf({});
        const QJsonObject recorded = manifestOfCapture()["paths"].toObject()["/bin/thirdAmpOffset.dat"].toObject();
        const bool cut = size > (qint64{16} << 20);
        EXPECT_EQ(recorded["truncated"], cut) << size;
        EXPECT_EQ(recorded["size"], 16 << 20) << size;
        const QDateTime captured = QDateTime::fromString(manifestOfCapture()["captured"].toString(), Qt::ISODate);
        EXPECT_LT(std::abs(captured.secsTo(QDateTime::currentDateTimeUtc())), 60) << "the time of the capture";
        const ToolRun replay = rfsysinfo({"--root", capturePath, "--section", "calibration"});
        EXPECT_EQ(replay.out.contains("truncated by the capture: /bin/thirdAmpOffset.dat"), cut) << size;
        EXPECT_TRUE(replay.out.contains("OK(2025-01-01 cal)")) << replay.out.toStdString();
    }
    for (const char *path :
         {"/bin/basic_freq_cal.csv", "/bin/dnc_freq_cal.csv", "/bin/freq_cal_high.csv", "/bin/freq_cal_low.csv"})
        writeDeviceFile(path, content);
    captureOf({});
    qint64 total = 0;
    for (const QJsonValue &recorded : manifestOfCapture()["paths"].toObject())
        total += static_cast<qint64>(recorded["size"].toDouble());
    EXPECT_EQ(total, qint64{64} << 20) << "five files of 16 MiB and one byte, cut to 64 MiB in all";

    const QStringList identity = {"--json", "--section", "identity"};
    for (const auto &[width, captured] : {std::pair{"1100000", true}, {"17000000", false}}) {
        writeDeviceFile("/bin/getSicutil",
                        std::string("#!/bin/sh\n[ \"$4\" = ProductName ] && printf '%0") + width + "d' 7\n", 0755);
        const ToolRun capture = rfsysinfo({"--capture", "/storage/answers.tgz"});
        EXPECT_EQ(capture.status, captured ? 0 : 4) << width << capture.err.toStdString();
        if (captured)
            EXPECT_EQ(parsedJson(rfsysinfo(identity + QStringList{"--root", "/storage/answers.tgz"}))["identity"],
                      parsedJson(rfsysinfo(identity))["identity"]);
        else
            EXPECT_TRUE(capture.err.endsWith("more than the 16 MiB a capture holds\n")) << capture.err.toStdString();
    }
}

// A capture of this instrument replays its report. The same device at the same time gives the same
// bytes; at another time only the manifest differs. Entries come sorted after the manifest, owned by
// root, mode 0644.
TEST_F(RfsysinfoTest, ACaptureReplaysTheInstrumentAndDiffersOnlyInTheManifestsTime)
{
    installSampleDevice(); // the test's own device is the instrument here
    auto capturedBytes = [](const QString &epoch) {
        captureOf({}, epoch);
        QFile file(capturePath);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    };
    const QByteArray first = capturedBytes("1700000000");
    sleep(1); // a time that leaks in anywhere (the gzip header) then shows
    EXPECT_EQ(capturedBytes("1700000000"), first) << "same device, same time: the same bytes";
    QJsonObject replayed = parsedJson(rfsysinfo({"--json", "--root", capturePath}));
    QJsonObject device = parsedJson(rfsysinfo({"--json"}));
    EXPECT_EQ(replayed.take("deviceTree"), capturePath);
    EXPECT_TRUE(device.take("deviceTree").isNull());
    EXPECT_EQ(replayed.take("capture"), QJsonObject({{"source", "instrument"},
                                                     {"sourceTree", QJsonValue()},
                                                     {"captured", "2023-11-14T22:13:20Z"},
                                                     {"toolVersion", RFSI_TEST_PACKAGE_VERSION},
                                                     {"softwareRecorded", true},
                                                     {"truncated", QJsonArray()}}));
    EXPECT_EQ(replayed, device);

    const QStringList listing = tarOf({"--numeric-owner", "--full-time", "-tvz"}).split('\n', Qt::SkipEmptyParts);
    const QString contents = tarOf({"-xOz", "--exclude=capture.json"});
    QJsonObject early = manifestOfCapture();
    captureOf({}, "1800000000");
    QJsonObject late = manifestOfCapture();
    ASSERT_GT(listing.size(), 20);
    EXPECT_EQ(tarOf({"--numeric-owner", "--full-time", "-tvz"}).split('\n', Qt::SkipEmptyParts).mid(1), listing.mid(1));
    EXPECT_EQ(tarOf({"-xOz", "--exclude=capture.json"}), contents) << "only the manifest differs";
    EXPECT_TRUE(listing.front().endsWith(" 2023-11-14 22:13:20 capture.json")) << listing.front().toStdString();
    QStringList names;
    for (const QString &entry : listing)
        names << entry.section(' ', -1);
    EXPECT_TRUE(std::is_sorted(names.begin() + 1, names.end())) << "sorted after the manifest";
    EXPECT_EQ(listing.filter(QRegularExpression("^-rw-r--r-- 0/0 ")).size(), listing.size()) << "root's, mode 0644";
    EXPECT_EQ(early.take("captured"), "2023-11-14T22:13:20Z");
    late.remove("captured");
    EXPECT_EQ(late, early);
}

TEST_F(RfsysinfoTest, CheckExitStatusFollowsTheVerdictAndItsOptions)
{
    // The sample device passes; its dated calibration files are from 2025 (what each finding says
    // is a device case, expected-check.json).
    // Its oldest is 2025-09-29: exactly that many days old is still within the limit.
    const QString oldestAge = QString::number(QDate(2025, 9, 29).daysTo(QDate::currentDate()));
    const QString youngerLimit = QString::number(oldestAge.toInt() - 1);
    writeDeviceFile("/storage/another-model.json", R"({"identity": {"model": "KV999"}})");
    const std::tuple<QStringList, int, int, QString> cases[] = {
        {{}, 0, 0, "-0042): PASS, 0 errors and 0 warnings"},
        {{"--strict"}, 0, 0, "PASS, 0 errors and 0 warnings (strict: warnings fail)"},
        {{"--max-calibration-age", oldestAge}, 0, 0, "PASS, 0 errors and 0 warnings"},
        {{"--max-calibration-age", youngerLimit}, 0, 1, "PASS, 0 errors and 1 warning"}, // warnings only
        {{"--max-calibration-age", "1"}, 0, 5, "PASS, 0 errors and 1 warning"},
        {{"--max-calibration-age", "1", "--strict"}, 1, 5, "FAIL, 0 errors and 1 warning (strict: warnings fail)"},
        {{"--expect", "/storage/another-model.json"},
         1,
         0,
         "against release another-model.json: FAIL, 1 error and 0 warnings"},
    };
    for (const auto &[options, status, oldFiles, summary] : cases) {
        const ToolRun run = rfsysinfo(QStringList{"--check"} + options + sampleWithTools);
        EXPECT_EQ(run.status, status) << options.join(' ').toStdString() << "\n" << run.out.toStdString();
        const QString old = run.out.split('\n').filter("calibration.old").value(0);
        EXPECT_EQ(old.count("/bin/"), oldFiles) << options.join(' ').toStdString() << "\n" << run.out.toStdString();
        EXPECT_TRUE(run.out.endsWith(summary + "\n")) << run.out.toStdString();
    }
    EXPECT_EQ(rfsysinfo({"--check"}).status, 1) << "the test's own device is empty";
    // The verdict names the instrument and when it was judged.
    QJsonObject json = parsedJson(rfsysinfo(QStringList{"--check", "--json"} + sampleWithTools));
    EXPECT_EQ(json["identity"], QJsonObject({{"model", "KV721"}, {"serialNumber", "KV721-24-0042"}}));
    const QDateTime checked = QDateTime::fromString(json["checked"].toString(), Qt::ISODate);
    EXPECT_LT(std::abs(checked.secsTo(QDateTime::currentDateTimeUtc())), 60)
        << json["checked"].toString().toStdString();
}

TEST_F(RfsysinfoTest, OutputIsWrittenWholeOrNotAtAll)
{
    fs::create_directories("/storage/out");
    writeDeviceFile("/storage/out/report", "the old report\n");
    // A reader that holds the old file keeps seeing it whole: the new one takes its place by a rename.
    QFile held("/storage/out/report");
    ASSERT_TRUE(held.open(QIODevice::ReadOnly));
    for (const QStringList &format : {QStringList{"--metrics"}, QStringList{"--json"}, QStringList{"--check"}}) {
        const ToolRun run = rfsysinfo(format + QStringList{"--output", "/storage/out/report"} + sampleWithTools);
        EXPECT_EQ(run.out, "");
        QFile written("/storage/out/report");
        ASSERT_TRUE(written.open(QIODevice::ReadOnly));
        // Equal but for the time each was collected.
        auto untimed = [](const QString &text) {
            return text.split('\n').filter(QRegularExpression("^(?!rfsi_report_timestamp_seconds )"));
        };
        EXPECT_EQ(untimed(QString::fromUtf8(written.readAll())), untimed(rfsysinfo(format + sampleWithTools).out));
    }
    EXPECT_EQ(held.readAll(), "the old report\n");
    EXPECT_EQ(fs::directory_iterator("/storage/out")->path(), "/storage/out/report") << "a temporary file was left";
    const ToolRun dash = rfsysinfo(QStringList{"--json", "--output", "-"} + sampleWithTools);
    EXPECT_EQ(dash.out, rfsysinfo(QStringList{"--json"} + sampleWithTools).out) << "- is standard output";
}

// Exit status 4, one line naming the target, and the target as it was: a link, a FIFO, a folder, a full
// disk, a closed or broken standard output. A check that passes but cannot say so is no failing unit.
TEST_F(RfsysinfoTest, OutputsThatCannotBeWrittenExitWithStatusFourAndLeaveTheTargetAlone)
{
    fs::create_directories("/storage/out/folder");
    writeDeviceFile("/storage/out/kept", "kept\n");
    fs::create_symlink("/storage/out/kept", "/storage/out/link");
    ASSERT_EQ(::mkfifo("/storage/out/fifo", 0644), 0);
    for (const QString option : {"--output", "--capture"})
        for (const auto &[target, reason] : {std::pair{"/storage/out/link", "it is a symbolic link"},
                                             {"/storage/out/fifo", "it is a FIFO"},
                                             {"/storage/out/folder", "it is a folder"},
                                             {"/storage/out/", "it names a folder"},
                                             {"/storage/no-such-folder/x", "its folder cannot be opened"}}) {
            const QStringList arguments =
                (option == "--output" ? QStringList{"--check"} : QStringList{}) + QStringList{option, target};
            const ToolRun run = rfsysinfo(arguments + sampleWithTools);
            EXPECT_EQ(run.status, 4) << arguments.join(' ').toStdString();
            EXPECT_EQ(run.err, QStringLiteral("rfsysinfo: cannot write %1 %2: %3").arg(option, target, reason) +
                                   run.err.mid(run.err.indexOf(reason) + static_cast<int>(strlen(reason))))
                << run.err.toStdString();
            EXPECT_EQ(run.err.count('\n'), 1) << run.err.toStdString();
        }
    EXPECT_EQ(fs::read_symlink("/storage/out/link"), "/storage/out/kept");
    EXPECT_TRUE(fs::is_fifo("/storage/out/fifo"));
    EXPECT_EQ(fs::file_size("/storage/out/kept"), 5u);
    EXPECT_TRUE(fs::is_empty("/storage/out/folder"));

    // A full disk: a file system of one page, taken up.
    fs::create_directories("/storage/full");
    ASSERT_EQ(::mount("tmpfs", "/storage/full", "tmpfs", 0, "size=4k"), 0);
    writeDeviceFile("/storage/full/taken", std::string(4096, 'x'));
    const ToolRun full = rfsysinfo(QStringList{"--check", "--output", "/storage/full/report"} + sampleWithTools);
    EXPECT_EQ(full.status, 4);
    EXPECT_EQ(full.err, "rfsysinfo: cannot write --output /storage/full/report: No space left on device\n");
    EXPECT_EQ(std::distance(fs::directory_iterator("/storage/full"), {}), 1) << "a temporary file was left";
    const QString tool = QStringLiteral(RFSI_TEST_RFSYSINFO);
    const std::pair<QString, QString> standardOutputs[] = {
        {"\"$0\" --check --root \"$1\" --allow-tools >/storage/full/report", "No space left on device"},
        {"\"$0\" --check --root \"$1\" --allow-tools >&-", "Bad file descriptor"},
        {"\"$0\" --capture - --root \"$1\" >&-", "Bad file descriptor"},
        {"\"$0\" --capture - --root \"$1\" >/storage/full/capture", "No space left on device"},
        {"\"$0\" --diff \"$1\" \"$1\" >/storage/full/diff", "No space left on device"},
        {"\"$0\" --capture /storage/out/summary.tgz --root \"$1\" >&-", "Bad file descriptor"},
        // A pipe whose reader is gone before the tool starts: every write fails.
        {R"(perl -e 'pipe(my $r, my $w); close $r; open(STDOUT, ">&", $w); exec @ARGV' "$0" --json --root "$1")",
         "Broken pipe"},
    };
    for (const auto &[command, reason] : standardOutputs) {
        QProcess shell;
        shell.start("bash", {"-c", command, tool, sampleDevice});
        shell.waitForFinished(30000);
        const QString err = QString::fromUtf8(shell.readAllStandardError());
        EXPECT_EQ(shell.exitCode(), 4) << command.toStdString() << "\n" << err.toStdString();
        EXPECT_TRUE(err.endsWith(QStringLiteral("cannot write standard output: %1\n").arg(reason)))
            << command.toStdString() << "\n"
            << err.toStdString();
    }
    ::umount("/storage/full");

    // A rename that fails (onto a mount point) is reported, and leaves nothing behind.
    fs::create_directories("/storage/busy");
    writeDeviceFile("/storage/busy/report", "old\n");
    writeDeviceFile("/storage/mounted", "mounted\n");
    ASSERT_EQ(::mount("/storage/mounted", "/storage/busy/report", "none", MS_BIND, nullptr), 0);
    const ToolRun busy = rfsysinfo(QStringList{"--json", "--output", "/storage/busy/report"} + sampleWithTools);
    EXPECT_EQ(busy.status, 4);
    EXPECT_EQ(busy.err,
              "rfsysinfo: cannot write --output /storage/busy/report: the temporary file cannot take its place: "
              "Device or resource busy\n");
    EXPECT_EQ(std::distance(fs::directory_iterator("/storage/busy"), {}), 1) << "a temporary file was left";
    ::umount("/storage/busy/report");
    // The target is looked at again just before the rename: a link put there while the report is made
    // (here by the machine's own identity tool) is refused.
    writeDeviceFile("/bin/getSicutil", "#!/bin/sh\nln -sf /storage/out/kept /storage/busy/late\necho KV721\n", 0755);
    const ToolRun late = rfsysinfo({"--json", "--output", "/storage/busy/late"});
    EXPECT_EQ(late.status, 4);
    EXPECT_EQ(late.err,
              "rfsysinfo: cannot write --output /storage/busy/late: it is a symbolic link, not a regular file; left as "
              "it is\n");
    EXPECT_EQ(fs::read_symlink("/storage/busy/late"), "/storage/out/kept");
    EXPECT_EQ(std::distance(fs::directory_iterator("/storage/busy"), {}), 2) << "a temporary file was left";
}

// A file replaced keeps its mode; a capture that holds serial numbers is its owner's alone.
TEST_F(RfsysinfoTest, OutputFilesKeepTheirModeAndACaptureWithSerialsIsTheOwnersOnly)
{
    fs::create_directories("/storage/out");
    const mode_t mask = ::umask(022);
    const struct
    {
        const char *name;
        int existingMode; // -1: no file there before
        QStringList arguments;
        mode_t expectedMode;
    } cases[] = {
        {"report-0600", 0600, {"--json", "--output"}, 0600},
        {"report-0640", 0640, {"--check", "--output"}, 0640},
        {"report-new", -1, {"--metrics", "--output"}, 0644},
        {"capture-new", -1, {"--capture"}, 0600},
        {"capture-0644", 0644, {"--capture"}, 0600},
        {"capture-sanitized", -1, {"--sanitize", "--capture"}, 0644},
    };
    for (const auto &c : cases) {
        const std::string path = std::string("/storage/out/") + c.name;
        if (c.existingMode >= 0)
            writeDeviceFile(path, "old\n", static_cast<mode_t>(c.existingMode));
        rfsysinfo(c.arguments + QStringList{QString::fromStdString(path)} + sampleWithTools);
        struct stat info;
        ASSERT_EQ(::stat(path.c_str(), &info), 0) << c.name;
        EXPECT_EQ(info.st_mode & 07777, c.expectedMode) << c.name;
    }
    ::umask(mask);
}
