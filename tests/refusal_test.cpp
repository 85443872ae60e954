// The inputs that cases under tests/devices hold for refusal, and the misuse of tests/misuse.tsv: each
// refused at once for its reason. (What the tool reports for a case is device_cases_test.sh.)
#include "DeviceTest.h"
#include "Rfsysinfo.h"

#include <QElapsedTimer>
#include <QFile>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

using namespace rfsitest;
namespace fs = std::filesystem;

class RefusalTest : public DeviceTest
{
};

// Refused at once, before any device is read, with one line on standard error and nothing on standard
// output: untrusted inputs, each for the reason its case gives (a capture: exit status 3, within 5 s; a
// release profile: 2, within a second; a profile that is no report either as a side of --diff: 3), and
// the misuse of tests/misuse.tsv (inputs that are no file to read are refused on the open descriptor,
// never waited on).
TEST_F(RefusalTest, RefusedInputsAndMisuseExitAtOnceWithTheirReason)
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
    for (const fs::directory_entry &folder : fs::directory_iterator(RFSI_TEST_SOURCE_DIR "/tests/devices"))
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
