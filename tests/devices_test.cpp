// Every case under tests/devices: a device tree with the report it must give beside it. The report
// tool reads the tree through a private device root, and a capture made of it; both reports must
// equal the expected one, section for section. Adding a case needs no code (tests/devices/README.md).
#include "DeviceTest.h"
#include "Rfsysinfo.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>

#include <filesystem>
#include <fstream>

#include <sys/stat.h>

using namespace rfsitest;
namespace fs = std::filesystem;

namespace {

const fs::path caseFolders = RFSI_TEST_SOURCE_DIR "/tests/devices";

QJsonDocument jsonDocument(const fs::path &path)
{
    QFile file(QString::fromStdString(path.string()));
    return file.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(file.readAll()) : QJsonDocument();
}

QJsonObject jsonFile(const fs::path &path)
{
    return jsonDocument(path).object();
}

// A case file that names another file below the cases' folder (as its absolute path), and perhaps
// options to go with it.
QStringList namedFile(const fs::path &file)
{
    std::ifstream named(file);
    std::string line;
    std::getline(named, line);
    QStringList words = QString::fromStdString(line).split(' ', Qt::SkipEmptyParts);
    words[0] = QString::fromStdString((caseFolders / words[0].toStdString()).string());
    return words;
}

// The report without the header keys that name the tool, its version and the source.
QJsonObject sectionsOf(const ToolRun &run)
{
    QJsonObject report = parsedJson(run);
    for (const char *header : {"tool", "version", "deviceTree", "sanitized", "capture"})
        report.remove(header);
    return report;
}

// A case's expectation holds only what the case decides: the rest is as on a device with every file
// missing. Objects merge member by member; anything else the case gives replaces the base's.
QJsonObject merged(QJsonObject base, const QJsonObject &overlay)
{
    for (auto member = overlay.begin(); member != overlay.end(); ++member) {
        const QJsonValue inBase = base.value(member.key());
        base.insert(member.key(), inBase.isObject() && member->isObject()
                                      ? merged(inBase.toObject(), member->toObject())
                                      : member.value());
    }
    return base;
}

// Where `actual` differs from `expected`, one line a value: "path: expected ≠ actual".
void listDifferences(const QJsonValue &expected, const QJsonValue &actual, const QString &path, QStringList &lines)
{
    if (expected.isObject() && actual.isObject()) {
        QStringList keys = expected.toObject().keys() + actual.toObject().keys();
        keys.removeDuplicates();
        for (const QString &key : keys)
            listDifferences(expected.toObject().value(key), actual.toObject().value(key), path + '/' + key, lines);
    } else if (expected.isArray() && actual.isArray() && expected.toArray().size() == actual.toArray().size()) {
        for (int i = 0; i < expected.toArray().size(); ++i)
            listDifferences(expected.toArray().at(i), actual.toArray().at(i), path + '/' + QString::number(i), lines);
    } else if (expected != actual) {
        auto text = [](const QJsonValue &value) {
            return QString::fromUtf8(QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact)).mid(1).chopped(1);
        };
        lines << path + ": " + text(expected) + " ≠ " + text(actual);
    }
}

// With a release profile: the check against it. With a side to compare with: the differences.
void listReleaseAndDiff(const fs::path &caseFolder, const QStringList &source, QStringList &differences)
{
    if (fs::exists(caseFolder / "expected-release.json")) {
        const QJsonObject expected = jsonFile(caseFolder / "expected-release.json");
        const ToolRun run =
            rfsysinfo(QStringList{"--check", "--json", "--expect"} + namedFile(caseFolder / "profile") + source);
        listDifferences(expected, parsedJson(run).value("check"), "/release", differences);
        EXPECT_EQ(run.status, expected.value("verdict") == "pass" ? 0 : 1) << run.err.toStdString();
    }
    if (fs::exists(caseFolder / "expected-diff.json")) {
        const QJsonArray expected = jsonDocument(caseFolder / "expected-diff.json").array();
        const QStringList diff = QStringList{"--diff"} + namedFile(caseFolder / "diff-before") + source;
        const ToolRun run = rfsysinfo(diff + QStringList{"--json"});
        listDifferences(expected, parsedJson(run).value("diff").toObject().value("differences"), "/diff", differences);
        EXPECT_EQ(run.status, expected.isEmpty() ? 0 : 1) << run.err.toStdString();
        // The text: a line a difference, "(absent)" for a value on one side only, and the count.
        const ToolRun text = rfsysinfo(diff);
        EXPECT_EQ(text.out.count('\n'), expected.size() + 1) << text.out.toStdString();
        EXPECT_EQ(text.out.contains(" (absent)"), QJsonDocument(expected).toJson().contains("null"))
            << text.out.toStdString();
    }
}

// The text report, where the case gives it whole: below its header, which names the source.
void listTextDifferences(const fs::path &caseFolder, const QStringList &source, QStringList &differences)
{
    QFile file(QString::fromStdString((caseFolder / "expected.txt").string()));
    if (!file.open(QIODevice::ReadOnly))
        return;
    const QString report = rfsysinfo(source).out;
    if (report.mid(report.indexOf("\n\n") + 2) != QString::fromUtf8(file.readAll()))
        differences << "expected.txt differs; the report was:\n" + report;
}

// The case's tree, copied where the tool can read it (links as links), with the FIFOs, folders and
// sockets that its "nodes" file lists: git keeps none of them.
QString preparedTree(const fs::path &caseFolder)
{
    const fs::path copy = "/storage/cases" / caseFolder.filename();
    fs::create_directories(copy);
    fs::copy(fs::canonical(caseFolder / "tree"), copy, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    std::ifstream nodes(caseFolder / "nodes");
    for (std::string kind, path; nodes >> kind >> path;) {
        const fs::path node = copy.string() + path;
        fs::create_directories(node.parent_path());
        if (kind == "folder")
            EXPECT_TRUE(fs::create_directory(node)) << node;
        else
            EXPECT_EQ(::mknod(node.c_str(), (kind == "fifo" ? S_IFIFO : S_IFSOCK) | 0644, 0), 0) << node;
    }
    return QString::fromStdString(copy.string());
}

QStringList argumentsOf(const fs::path &caseFolder)
{
    QFile file(QString::fromStdString((caseFolder / "arguments").string()));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).simplified().split(' ') : QStringList();
}

} // namespace

class DeviceCasesTest : public DeviceTest
{
};

TEST_F(DeviceCasesTest, EachCaseReportsAsExpectedReadDirectlyAndReplayedFromACapture)
{
    int cases = 0;
    for (const fs::directory_entry &folder : fs::directory_iterator(caseFolders)) {
        if (!folder.is_directory() || !fs::exists(folder.path() / "expected.json"))
            continue;
        ++cases;
        SCOPED_TRACE(folder.path().filename().string());
        const QJsonObject expected = merged(jsonFile(caseFolders / "missing-files" / "expected.json"),
                                            jsonFile(folder.path() / "expected.json"));
        QList<QStringList> sources;
        const QString capture = QStringLiteral("/storage/capture.tgz");
        if (fs::exists(folder.path() / "capture.tgz")) {
            // A capture of the replay is the same device again.
            const QStringList given = {"--root", QString::fromStdString((folder.path() / "capture.tgz").string())};
            ASSERT_EQ(rfsysinfo(QStringList{"--capture", capture} + given).status, 0);
            sources << given << QStringList{"--root", capture};
        } else {
            const QStringList tree = QStringList{"--root", preparedTree(folder.path())} + argumentsOf(folder.path());
            ASSERT_EQ(rfsysinfo(QStringList{"--capture", capture} + tree).status, 0);
            sources << tree << QStringList{"--root", capture};
        }
        const QJsonObject expectedCheck = jsonFile(folder.path() / "expected-check.json");
        for (const QStringList &source : sources) {
            QStringList differences;
            listDifferences(expected, sectionsOf(rfsysinfo(QStringList{"--json"} + source)), {}, differences);
            if (!expectedCheck.isEmpty()) {
                const ToolRun check = rfsysinfo(QStringList{"--check", "--json"} + source);
                listDifferences(expectedCheck, parsedJson(check).value("check"), "/check", differences);
                EXPECT_EQ(check.status, expectedCheck.value("verdict") == "pass" ? 0 : 1);
            }
            listReleaseAndDiff(folder.path(), source, differences);
            listTextDifferences(folder.path(), source, differences);
            EXPECT_TRUE(differences.isEmpty()) << source.join(' ').toStdString() << ":\n"
                                               << differences.join('\n').toStdString();
        }
    }
    EXPECT_GE(cases, 30) << "the cases under " << caseFolders;
}

TEST_F(DeviceCasesTest, EachRefusedCaptureIsRefusedQuicklyForItsReason)
{
    int cases = 0;
    for (const fs::directory_entry &folder : fs::directory_iterator(caseFolders)) {
        std::ifstream refusalFile(folder.path() / "refusal");
        std::string refusal;
        if (!std::getline(refusalFile, refusal))
            continue;
        ++cases;
        SCOPED_TRACE(folder.path().filename().string());
        const QString archive = QString::fromStdString((folder.path() / "capture.tgz").string());
        QElapsedTimer timer;
        timer.start();
        const ToolRun run = rfsysinfo({"--root", archive});
        EXPECT_LT(timer.elapsed(), 5000);
        EXPECT_EQ(run.status, 3);
        EXPECT_EQ(run.out, "");
        const QString prefix = "rfsysinfo: refused the capture " + archive + ": ";
        EXPECT_TRUE(run.err.startsWith(prefix) && run.err.count('\n') == 1) << run.err.toStdString();
        EXPECT_TRUE(run.err.contains(QString::fromStdString(refusal))) << run.err.toStdString();
    }
    EXPECT_GE(cases, 15);
    EXPECT_FALSE(fs::exists("/storage/escaped"));
}

// A release profile is untrusted input too: refused with one line that names the place, within a
// second, before any device is read. What is no report either is refused as a side of --diff.
TEST_F(DeviceCasesTest, EachRefusedProfileIsRefusedQuicklyForItsReason)
{
    std::ofstream("/storage/huge.json").close();
    fs::resize_file("/storage/huge.json", qint64{1} << 30); // sparse: a gigabyte of NUL bytes
    std::vector<std::pair<fs::path, std::string>> profiles = {{"/storage/huge.json", "it is larger than 1024 KiB"}};
    for (const fs::directory_entry &folder : fs::directory_iterator(caseFolders)) {
        std::ifstream refusalFile(folder.path() / "profile-refusal");
        std::string refusal;
        if (std::getline(refusalFile, refusal))
            profiles.emplace_back(folder.path() / "profile.json", refusal);
    }
    ASSERT_GE(profiles.size(), 10u);
    const QStringList sample = {"--root", RFSI_TEST_SOURCE_DIR "/examples/device", "--allow-tools"};
    for (const auto &[profile, refusal] : profiles) {
        SCOPED_TRACE(profile.string());
        const QString path = QString::fromStdString(profile.string());
        QElapsedTimer timer;
        timer.start();
        const ToolRun run = rfsysinfo(QStringList{"--check", "--expect", path} + sample);
        EXPECT_LT(timer.elapsed(), 1000);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.out, "");
        EXPECT_TRUE(run.err.startsWith("rfsysinfo: refused the release profile " + path + ": ") &&
                    run.err.count('\n') == 1 && run.err.contains(QString::fromStdString(refusal)))
            << run.err.toStdString();
        std::ifstream reportRefusalFile(profile.parent_path() / "report-refusal");
        std::string reportRefusal;
        if (!std::getline(reportRefusalFile, reportRefusal))
            continue;
        const ToolRun diff = rfsysinfo(QStringList{"--diff", path} + sample);
        EXPECT_EQ(diff.status, 3);
        EXPECT_TRUE(diff.err.contains("refused the report " + path + ": " + QString::fromStdString(reportRefusal)))
            << diff.err.toStdString();
    }
}
