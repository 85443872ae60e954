// Every case under tests/devices: a device tree with the report it must give beside it. The report
// tool reads the tree through a private device root, and a capture made of it; both reports must
// equal the expected one, section for section. Adding a case needs no code (tests/devices/README.md).
// The inputs a case holds for refusal are refused here too, with the misuse of tests/misuse.tsv.
#include "DeviceTest.h"
#include "Rfsysinfo.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

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

// The judgements a case may expect: the check, the check against its release profile, and the
// differences from its other side (its exit status 0 when there are none, else 1); the exit status of
// a check follows its verdict.
void listJudgementDifferences(const fs::path &caseFolder, const QStringList &source, QStringList &differences)
{
    const struct
    {
        const char *expectedFile, *namedFile;
        QStringList options, place;
    } judgements[] = {
        {"expected-check.json", nullptr, {"--check"}, {"check"}},
        {"expected-release.json", "profile", {"--check", "--expect"}, {"check"}},
        {"expected-diff.json", "diff-before", {"--diff"}, {"diff", "differences"}},
    };
    for (const auto &[expectedFile, named, options, place] : judgements) {
        const QJsonDocument expected = jsonDocument(caseFolder / expectedFile);
        if (expected.isNull())
            continue;
        const QStringList arguments = options + (named ? namedFile(caseFolder / named) : QStringList()) + source;
        const ToolRun run = rfsysinfo(arguments + QStringList{"--json"});
        QJsonValue actual = parsedJson(run);
        for (const QString &key : place)
            actual = actual[key];
        listDifferences(expected.isArray() ? QJsonValue(expected.array()) : expected.object(), actual,
                        "/" + place.join('/'), differences);
        const bool passes = expected.isArray() ? expected.array().isEmpty() : expected["verdict"] == "pass";
        EXPECT_EQ(run.status, passes ? 0 : 1) << expectedFile << ": " << run.err.toStdString();
        if (expected.isArray()) {
            // The text: a line a difference, "(absent)" for a value on one side only, and the count.
            const QString text = rfsysinfo(arguments).out;
            EXPECT_EQ(text.count('\n'), expected.array().size() + 1) << text.toStdString();
            EXPECT_EQ(text.contains(" (absent)"), expected.toJson().contains("null")) << text.toStdString();
        }
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
        // A capture of the tree, or of a case's capture replayed, is the same device again.
        const QStringList given =
            fs::exists(folder.path() / "capture.tgz")
                ? QStringList{"--root", QString::fromStdString((folder.path() / "capture.tgz").string())}
                : QStringList{"--root", preparedTree(folder.path())} + argumentsOf(folder.path());
        const QString capture = QStringLiteral("/storage/capture.tgz");
        ASSERT_EQ(rfsysinfo(QStringList{"--capture", capture} + given).status, 0);
        for (const QStringList &source : {given, QStringList{"--root", capture}}) {
            QStringList differences;
            listDifferences(expected, sectionsOf(rfsysinfo(QStringList{"--json"} + source)), {}, differences);
            listJudgementDifferences(folder.path(), source, differences);
            listTextDifferences(folder.path(), source, differences);
            EXPECT_TRUE(differences.isEmpty()) << source.join(' ').toStdString() << ":\n"
                                               << differences.join('\n').toStdString();
        }
    }
    EXPECT_GE(cases, 30) << "the cases under " << caseFolders;
}

// Refused at once, before any device is read, with one line on standard error and nothing on standard
// output: untrusted inputs, each for the reason its case gives (a capture: exit status 3, within 5 s; a
// release profile: 2, within a second; a profile that is no report either as a side of --diff: 3), and
// the misuse of tests/misuse.tsv (inputs that are no file to read are refused on the open descriptor,
// never waited on).
TEST_F(DeviceCasesTest, RefusedInputsAndMisuseExitAtOnceWithTheirReason)
{
    struct Refusal
    {
        QStringList arguments;
        int status;
        QStringList says;
        qint64 boundMs = 5000;
    };
    std::vector<Refusal> refusals;
    QFile table(QStringLiteral(RFSI_TEST_SOURCE_DIR "/tests/misuse.tsv"));
    ASSERT_TRUE(table.open(QIODevice::ReadOnly));
    for (const QString &line :
         QString::fromUtf8(table.readAll()).replace("$SAMPLE", RFSI_TEST_SOURCE_DIR "/examples/device").split('\n')) {
        const QStringList fields = line.split('\t');
        if (!line.startsWith('#') && fields.size() >= 3)
            refusals.push_back({fields.mid(2), fields[0].toInt(), {fields[1]}});
    }
    ASSERT_GE(refusals.size(), 30u);

    writeDeviceFile("/storage/huge/profile-refusal", "it is larger than 1024 KiB\n");
    std::ofstream("/storage/huge/profile.json").close();
    fs::resize_file("/storage/huge/profile.json", qint64{1} << 30); // sparse: a gigabyte of NUL bytes
    const QStringList sample = {"--root", RFSI_TEST_SOURCE_DIR "/examples/device", "--allow-tools"};
    const struct
    {
        const char *reasonFile, *input;
        QStringList options, source;
        int status;
        const char *refused;
        qint64 boundMs;
    } kinds[] = {
        {"refusal", "capture.tgz", {"--root"}, {}, 3, "refused the capture ", 5000},
        {"profile-refusal", "profile.json", {"--check", "--expect"}, sample, 2, "refused the release profile ", 1000},
        {"report-refusal", "profile.json", {"--diff"}, sample, 3, "refused the report ", 5000},
    };
    std::vector<fs::path> folders = {"/storage/huge"};
    for (const fs::directory_entry &folder : fs::directory_iterator(caseFolders))
        folders.push_back(folder.path());
    std::map<std::string, int> cases;
    for (const auto &kind : kinds)
        for (const fs::path &folder : folders) {
            std::ifstream reasonFile(folder / kind.reasonFile);
            std::string reason;
            if (std::getline(reasonFile, reason)) {
                ++cases[kind.reasonFile];
                const QString input = QString::fromStdString((folder / kind.input).string());
                refusals.push_back({kind.options + QStringList{input} + kind.source,
                                    kind.status,
                                    {kind.refused + input + ": ", QString::fromStdString(reason)},
                                    kind.boundMs});
            }
        }
    EXPECT_GE(cases["refusal"], 15);
    EXPECT_GE(cases["profile-refusal"], 10);
    EXPECT_GE(cases["report-refusal"], 3);

    ASSERT_EQ(::mkfifo("/storage/fifo", 0644), 0);
    const int listening = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/storage/socket");
    ASSERT_EQ(::bind(listening, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    for (const Refusal &refusal : refusals) {
        SCOPED_TRACE(refusal.arguments.join(' ').toStdString());
        QElapsedTimer timer;
        timer.start();
        const ToolRun run = rfsysinfo(refusal.arguments);
        EXPECT_LT(timer.elapsed(), refusal.boundMs);
        EXPECT_EQ(run.status, refusal.status);
        EXPECT_EQ(run.out, "");
        EXPECT_TRUE(run.err.startsWith("rfsysinfo: ") && run.err.count('\n') == 1) << run.err.toStdString();
        for (const QString &part : refusal.says)
            EXPECT_TRUE(run.err.contains(part)) << run.err.toStdString();
    }
    ::close(listening);
    EXPECT_FALSE(fs::exists("/storage/escaped"));
}
