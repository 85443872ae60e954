// Capture and replay, run as support runs them: a device's state captured into one archive and
// replayed through the unchanged library, and archives that are not captures refused.
#include "DeviceTest.h"
#include "Rfsysinfo.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>

#include <archive.h>
#include <archive_entry.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <utility>

#include <sys/stat.h>

using namespace rfsitest;
namespace fs = std::filesystem;

namespace {

const fs::path caseFolders = RFSI_TEST_SOURCE_DIR "/tests/devices";
const QString sampleDevice = QStringLiteral(RFSI_TEST_SOURCE_DIR "/examples/device");
const QString capturePath = QStringLiteral("/storage/out/capture.tgz");

struct Entry
{
    Entry(std::string name, QByteArray content = {}, mode_t type = AE_IFREG, std::string link = {},
          bool hardLink = false)
        : name(std::move(name)), content(std::move(content)), type(type), link(std::move(link)), hardLink(hardLink)
    {}
    std::string name;
    QByteArray content;
    mode_t type = AE_IFREG;
    std::string link; // symbolic or hard link target
    bool hardLink = false;
    time_t modified = 0;
    unsigned mode = 0644, uid = 0, gid = 0;
};

std::vector<Entry> entriesOf(const QString &path)
{
    std::vector<Entry> entries;
    const std::unique_ptr<archive, int (*)(archive *)> reader(archive_read_new(), archive_read_free);
    archive_read_support_filter_gzip(reader.get());
    archive_read_support_format_tar(reader.get());
    EXPECT_EQ(archive_read_open_filename(reader.get(), QFile::encodeName(path).constData(), 65536), ARCHIVE_OK);
    archive_entry *header = nullptr;
    while (archive_read_next_header(reader.get(), &header) == ARCHIVE_OK) {
        Entry entry{archive_entry_pathname(header), {}, archive_entry_filetype(header)};
        entry.modified = archive_entry_mtime(header);
        entry.mode = archive_entry_perm(header);
        entry.uid = static_cast<unsigned>(archive_entry_uid(header));
        entry.gid = static_cast<unsigned>(archive_entry_gid(header));
        entry.content.resize(static_cast<int>(archive_entry_size(header)));
        archive_read_data(reader.get(), entry.content.data(), static_cast<size_t>(entry.content.size()));
        entries.push_back(entry);
    }
    return entries;
}

void writeArchive(const std::string &path, const std::vector<Entry> &entries)
{
    const std::unique_ptr<archive, int (*)(archive *)> writer(archive_write_new(), archive_write_free);
    archive_write_add_filter_gzip(writer.get());
    archive_write_set_format_pax_restricted(writer.get());
    ASSERT_EQ(archive_write_open_filename(writer.get(), path.c_str()), ARCHIVE_OK);
    for (const Entry &entry : entries) {
        const std::unique_ptr<archive_entry, void (*)(archive_entry *)> header(archive_entry_new(), archive_entry_free);
        archive_entry_set_pathname(header.get(), entry.name.c_str());
        archive_entry_set_filetype(header.get(), entry.type);
        archive_entry_set_perm(header.get(), entry.mode);
        archive_entry_set_size(header.get(), entry.type == AE_IFREG && !entry.hardLink ? entry.content.size() : 0);
        if (entry.hardLink)
            archive_entry_set_hardlink(header.get(), entry.link.c_str());
        else if (entry.type == AE_IFLNK)
            archive_entry_set_symlink(header.get(), entry.link.c_str());
        archive_write_header(writer.get(), header.get());
        archive_write_data(writer.get(), entry.content.constData(), static_cast<size_t>(entry.content.size()));
    }
    archive_write_close(writer.get());
}

QByteArray fileBytes(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The report as JSON, without the header key that names its source.
QJsonObject reportOf(const QStringList &source)
{
    QJsonObject report = parsedJson(rfsysinfo(QStringList{"--json"} + source));
    report.remove("deviceTree");
    return report;
}

void captureOf(const QStringList &arguments,
               const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment())
{
    fs::create_directories("/storage/out");
    const ToolRun run = rfsysinfo(QStringList{"--capture", capturePath} + arguments, environment);
    ASSERT_EQ(run.status, 0) << run.err.toStdString();
}

// A case's tree copied where the tool can read it, with the FIFOs and folders that its "nodes" file
// asks for (git keeps neither).
QString caseTree(const fs::path &caseFolder)
{
    const fs::path copy = "/storage/cases" / caseFolder.filename();
    fs::create_directories(copy);
    fs::copy(caseFolder / "tree", copy, fs::copy_options::recursive);
    std::ifstream nodes(caseFolder / "nodes");
    for (std::string kind, path; nodes >> kind >> path;) {
        const fs::path node = copy.string() + path;
        fs::create_directories(node.parent_path());
        EXPECT_TRUE(kind == "fifo" ? ::mkfifo(node.c_str(), 0644) == 0 : fs::create_directory(node)) << node;
    }
    return QString::fromStdString(copy.string());
}

std::string json(const QJsonObject &object)
{
    return QJsonDocument(object).toJson().toStdString();
}

} // namespace

class CaptureTest : public DeviceTest
{
};

TEST_F(CaptureTest, ReplayGivesTheReportOfTheCapturedDevice)
{
    std::vector<std::pair<std::string, QStringList>> sources = {
        {"the sample device", {"--root", sampleDevice, "--allow-tools"}},
        {"the sample device, its tools not allowed", {"--root", sampleDevice}},
        {"this instrument", {}}, // the test's device, holding the sample device
    };
    for (const fs::directory_entry &caseFolder : fs::directory_iterator(caseFolders))
        sources.push_back({caseFolder.path().filename().string(), {"--root", caseTree(caseFolder.path())}});
    installSampleDevice();
    for (const auto &[description, source] : sources) {
        SCOPED_TRACE(description);
        captureOf(source);
        const QJsonObject device = reportOf(source), replayed = reportOf({"--root", capturePath});
        EXPECT_EQ(replayed, device) << "replayed:\n" << json(replayed) << "device:\n" << json(device);
    }
}

TEST_F(CaptureTest, SanitizedCaptureHoldsNoSerialAndReplaysTheSanitizedReport)
{
    const QStringList sample = {"--root", sampleDevice, "--allow-tools"};
    captureOf(sample + QStringList{"--sanitize"});
    QProcess gzip;
    gzip.start("gzip", {"-dc", capturePath});
    ASSERT_TRUE(gzip.waitForFinished(10000));
    const QByteArray unpacked = gzip.readAllStandardOutput();
    ASSERT_GT(unpacked.size(), 10000);
    for (const char *serial : {"KV721-24-0042", "DPB7-24-03117"})
        EXPECT_FALSE(unpacked.contains(serial)) << serial;
    EXPECT_EQ(reportOf({"--root", capturePath}), reportOf(sample + QStringList{"--sanitize"}));
}

TEST_F(CaptureTest, CapturesOfAnUnchangedDeviceDifferOnlyInTheManifestsTime)
{
    const QStringList sample = {"--root", sampleDevice, "--allow-tools"};
    auto capturedAt = [&sample](const char *epoch) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("SOURCE_DATE_EPOCH", epoch);
        captureOf(sample, environment);
        return fileBytes(capturePath);
    };
    const QByteArray first = capturedAt("1700000000");
    EXPECT_EQ(capturedAt("1700000000"), first) << "same device, same time: the same bytes";
    const std::vector<Entry> early = entriesOf(capturePath);
    capturedAt("1800000000");
    const std::vector<Entry> late = entriesOf(capturePath);

    ASSERT_EQ(early.size(), late.size());
    ASSERT_EQ(early.front().name, "capture.json");
    for (size_t i = 0; i < early.size(); ++i) {
        SCOPED_TRACE(early[i].name);
        EXPECT_EQ(late[i].name, early[i].name);
        if (i > 0) {
            EXPECT_TRUE(i == 1 || early[i - 1].name < early[i].name) << "sorted after the manifest";
            EXPECT_EQ(late[i].content, early[i].content);
            EXPECT_EQ(late[i].modified, early[i].modified);
        }
        EXPECT_EQ(early[i].type, AE_IFREG);
        EXPECT_EQ(early[i].mode, 0644u);
        EXPECT_EQ(early[i].uid + early[i].gid, 0u);
    }
    QJsonObject earlyManifest = QJsonDocument::fromJson(early.front().content).object();
    QJsonObject lateManifest = QJsonDocument::fromJson(late.front().content).object();
    EXPECT_EQ(earlyManifest.take("captured").toString(), "2023-11-14T22:13:20Z");
    lateManifest.remove("captured");
    EXPECT_EQ(lateManifest, earlyManifest);
}

TEST_F(CaptureTest, ReplayedIdentityComesFromTheRecordNotFromAnyProgram)
{
    captureOf({"--root", sampleDevice, "--allow-tools"});
    for (const Entry &entry : entriesOf(capturePath))
        EXPECT_EQ(entry.name.find("sicutil"), std::string::npos) << entry.name << ": a tool was copied";
    // The machine's own tool must not answer for the capture either.
    installTool("/bin/getSicutil", "echo MACHINE");
    const QJsonObject identity = reportOf({"--root", capturePath}).value("identity").toObject();
    EXPECT_EQ(identity.value("model").toString(), "KV721");
    EXPECT_EQ(identity.value("serialNumber").toString(), "KV721-24-0042");
    EXPECT_TRUE(identity.value("identityToolsRun").toBool());
}

TEST_F(CaptureTest, ArchivesThatAreNoCaptureAreRefusedQuicklyWithTheEntryNamed)
{
    captureOf({"--root", sampleDevice, "--allow-tools"});
    const QByteArray valid = fileBytes(capturePath);
    const std::vector<Entry> entries = entriesOf(capturePath);
    auto changed = [&entries](const std::function<void(std::vector<Entry> &)> &change) {
        std::vector<Entry> result = entries;
        change(result);
        return result;
    };
    auto added = [&changed](Entry entry) {
        return changed([entry](std::vector<Entry> &list) { list.insert(list.begin() + 1, entry); });
    };
    auto manifestWith = [&changed](const char *key, const QJsonValue &value) {
        return changed([key, value](std::vector<Entry> &list) {
            QJsonObject manifest = QJsonDocument::fromJson(list.front().content).object();
            manifest.insert(key, value);
            list.front().content = QJsonDocument(manifest).toJson();
        });
    };
    const std::string inventory = "tmp/SystemInventoryInfo.info";
    QByteArray corrupt = valid;
    corrupt[corrupt.size() / 2] = static_cast<char>(corrupt[corrupt.size() / 2] ^ 0x55);

    struct Case
    {
        const char *description;
        std::function<void(const std::string &)> write;
        const char *reason;
    };
    auto bytes = [](const QByteArray &content) {
        return [content](const std::string &path) { std::ofstream(path, std::ios::binary) << content.toStdString(); };
    };
    auto archiveOf = [](const std::vector<Entry> &list) {
        return [list](const std::string &path) { writeArchive(path, list); };
    };
    const Case cases[] = {
        {"no archive at all", bytes("KV721\n"), "not gzip-compressed"},
        {"truncated", bytes(valid.left(valid.size() / 2)), "truncated gzip input"},
        {"corrupt", bytes(corrupt), "corrupt"},
        {"no manifest", archiveOf(changed([](std::vector<Entry> &list) { list.erase(list.begin()); })),
         "entry 'Dsp/name.txt' comes first, where the manifest capture.json belongs"},
        {"malformed manifest",
         archiveOf(changed([](std::vector<Entry> &list) { list.front().content = "{\"format\": "; })),
         "capture.json is not a JSON object"},
        {"unknown version", archiveOf(manifestWith("formatVersion", 2)), "format version 2"},
        {"climbs out", archiveOf(added({"tmp/../../storage/escaped", "x"})),
         "entry 'tmp/../../storage/escaped' would land outside the device root"},
        {"absolute", archiveOf(added({"/storage/escaped", "x"})),
         "entry '/storage/escaped' would land outside the device root"},
        {"symbolic link", archiveOf(added({inventory, {}, AE_IFLNK, "/etc/shadow"})),
         "entry 'tmp/SystemInventoryInfo.info' is a symbolic link"},
        {"hard link", archiveOf(added({inventory, {}, AE_IFREG, "etc/shadow", true})),
         "entry 'tmp/SystemInventoryInfo.info' is a hard link"},
        {"device node", archiveOf(added({"bin/DpbJsonInfo.json", {}, AE_IFCHR})),
         "entry 'bin/DpbJsonInfo.json' is a device node"},
        {"FIFO", archiveOf(added({"Dsp/name.txt", {}, AE_IFIFO})), "entry 'Dsp/name.txt' is a FIFO"},
        {"a path no capture writes", archiveOf(added({"etc/passwd", "root::0:0::/:/bin/sh\n"})),
         "entry 'etc/passwd' is not a file the manifest records"},
        {"a file over the cap", archiveOf(added({inventory, QByteArray(17 << 20, '\0')})),
         "entry 'tmp/SystemInventoryInfo.info' holds 17825792 bytes, more than the 16 MiB"},
        {"gigabytes from a small archive", archiveOf(changed([](std::vector<Entry> &list) {
             for (const char *name : {"bin/basic_freq_cal.csv", "bin/dnc_freq_cal.csv", "bin/freq_cal_high.csv",
                                      "bin/freq_cal_low.csv", "bin/thirdAmpOffset.dat"})
                 list.push_back({name, QByteArray(15 << 20, 'x')});
         })),
         "unpacks to more than 66 MiB"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.description);
        const std::string path = "/storage/out/hostile.tgz";
        c.write(path);
        QElapsedTimer timer;
        timer.start();
        const ToolRun run = rfsysinfo({"--root", QString::fromStdString(path)});
        EXPECT_LT(timer.elapsed(), 5000);
        EXPECT_EQ(run.status, 3);
        EXPECT_EQ(run.out, "");
        EXPECT_TRUE(run.err.startsWith("rfsysinfo: refused the capture /storage/out/hostile.tgz: ") &&
                    run.err.count('\n') == 1)
            << run.err.toStdString();
        EXPECT_TRUE(run.err.contains(c.reason)) << run.err.toStdString();
    }
    EXPECT_FALSE(fs::exists("/storage/escaped"));
}
