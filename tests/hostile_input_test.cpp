// Hostile files at the fixed paths and hostile identity tools: every query returns, within its time
// bound, with the answer its source gives when it cannot be read, and leaves no process behind.
#include "DeviceRoot.h"
#include "DeviceTest.h"
#include "rfSystem_Info.h"

#include <QElapsedTimer>

#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace rfsitest;
namespace fs = std::filesystem;

namespace {

// A fixed path, a query that reads it, and what the query answers when the path is missing or when
// something stands there that cannot be read as a file.
struct Source
{
    std::string path;
    std::function<QString(rfSystemInfo &)> query;
    QString missing, unreadable;
};

const Source sources[] = {
    {"/tmp/SystemInventoryInfo.info",
     [](rfSystemInfo &info) { return QString::fromStdString(info.getDpbRfSysInfoFromFile(3, true)); }, "NONE", "r"},
    {"/storage/RFHW_Revision.info", [](rfSystemInfo &info) { return info.checkRFModuleRevision(); }, "NONE", "r"},
    {"/bin/DpbJsonInfo.json", [](rfSystemInfo &info) { return info.getFpgaVersionrfSystemInfo("FPGA_BANK_0_VER"); },
     "1000", "1000"},
    {"/Dsp/name.txt",
     [](rfSystemInfo &info) { return QString::number(info.getDspActiveCount()) + "|" + info.checkDspString(0); }, "3|",
     "3|"},
    {"/DspCpri/name.txt", [](rfSystemInfo &info) { return QString::number(info.getCpriDspActiveCount()); }, "2", "2"},
    {"/DspCpri/version.txt", [](rfSystemInfo &info) { return info.checkCpriDspVersion(0); }, "", ""},
    {"/bin/basic_freq_cal.csv", [](rfSystemInfo &info) { return info.checkBasicFreqCalFile(); }, "NONE(NONE)",
     "OK(NONE)"},
    {"/sys/class/thermal/thermal_zone3/temp", [](rfSystemInfo &info) { return info.checkSystemTemperature().left(6); },
     "N/A(P)", "N/A(P)"},
    {"/bin/getSicutil", [](rfSystemInfo &info) { return info.getSystemModel(); }, "KV720", "KV720"},
};

void makeSocket(const std::string &path)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << path;
    ::close(fd);
}

// What can stand at a path instead of a file, made there; true when it exists afterwards.
const std::pair<const char *, std::function<bool(const std::string &)>> hostileThings[] = {
    {"FIFO", [](const std::string &p) { return ::mkfifo(p.c_str(), 0644) == 0; }},
    {"link to /dev/zero", [](const std::string &p) { return ::symlink("/dev/zero", p.c_str()) == 0; }},
    {"link to /dev/urandom", [](const std::string &p) { return ::symlink("/dev/urandom", p.c_str()) == 0; }},
    {"socket", [](const std::string &p) { return makeSocket(p), true; }},
    {"folder", [](const std::string &p) { return fs::create_directory(p); }},
    {"link loop", [](const std::string &p) { return ::symlink(p.c_str(), p.c_str()) == 0 && false; }},
};

// A process is gone when it no longer exists or waits only to be reaped. A killed process takes a
// moment to go, so this waits up to a second.
bool running(pid_t pid)
{
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string pidField, name, state;
        if (!(stat >> pidField >> name >> state) || state == "Z")
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

pid_t pidFrom(const std::string &file)
{
    pid_t pid = 0;
    std::ifstream(file) >> pid;
    return pid;
}

} // namespace

class HostileInputTest : public DeviceTest
{
};

TEST_F(HostileInputTest, ThingsThatAreNotFilesReadAsUnreadable)
{
    for (const Source &source : sources) {
        for (const auto &[thing, make] : hostileThings) {
            SCOPED_TRACE(source.path + " as " + thing);
            deviceroot::reset();
            fs::create_directories(fs::path(source.path).parent_path());
            const bool exists = make(source.path);
            rfSystemInfo info; // a fresh board description document
            QElapsedTimer timer;
            timer.start();
            EXPECT_EQ(source.query(info), exists ? source.unreadable : source.missing);
            EXPECT_LT(timer.elapsed(), 3000);
        }
    }
}

TEST_F(HostileInputTest, HostileContentIsReadWithinTheFilesSize)
{
    std::string garbage(65536, '\0');
    std::ifstream("/dev/urandom").read(garbage.data(), static_cast<std::streamsize>(garbage.size()));
    const std::string contents[] = {
        garbage,
        "3\r" + std::string("A\rB\rC\r"),             // CR-only line ends: one long line
        "\xff\xfe\xc3(\xed\xa0\x80\n\x80\x81\n",      // invalid UTF-8
        std::string(8 << 20, 'x') + "\n",             // one line of 8 MiB
        std::string("2\0\0\nA\0B\n", 8) + "\r\n\r\n", // NUL bytes and CRLF
    };
    for (const Source &source : sources) {
        for (const std::string &content : contents) {
            SCOPED_TRACE(source.path + " holding " + std::to_string(content.size()) + " bytes");
            writeDeviceFile(source.path, content, 0755);
            rfSystemInfo info;
            const QString answer = source.query(info);
            EXPECT_LE(answer.toUtf8().size(), static_cast<int>(content.size()) + 64);
        }
    }
}

TEST_F(HostileInputTest, ToolsThatMisbehaveQuicklyLeaveNothingBehind)
{
    rfSystemInfo &info = *rfSystemInfo::param();
    struct Case
    {
        const char *description;
        const char *script;
        QString answer;
    };
    const Case cases[] = {
        {"starts a child that keeps its output open", "sleep 60 & echo $! > /tmp/child.pid; echo KV7", "KV7"},
        {"starts a child of its own session", "setsid sleep 5 & echo KV7", "KV7"},
        {"is killed by a signal", "echo KV7; kill -9 $$; echo never", "KV7"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.description);
        deviceroot::reset();
        installTool("/bin/tool", c.script);
        QElapsedTimer timer;
        timer.start();
        const QString answer = info.executeCmd("/bin/tool", "x");
        EXPECT_LT(timer.elapsed(), 3000);
        EXPECT_EQ(answer, c.answer);
        if (fs::exists("/tmp/child.pid")) {
            EXPECT_FALSE(running(pidFrom("/tmp/child.pid")));
        }
    }
}

TEST_F(HostileInputTest, StandardErrorOfAToolIsNeverKept)
{
    installTool("/bin/tool", "head -c 300000000 /dev/zero >&2; echo KV7");
    inFreshProcess([] {
        rusage before{}, after{};
        ::getrusage(RUSAGE_SELF, &before);
        EXPECT_EQ(rfSystemInfo::param()->executeCmd("/bin/tool", "x"), "KV7");
        ::getrusage(RUSAGE_SELF, &after);
        EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 64 * 1024) << "kilobytes of peak memory for 300 MB on stderr";
    });
}

TEST_F(HostileInputTest, ToolsThatHangAreKilledAfterTheTimeOut)
{
    // Both cases wait out the 8000 ms bound, so they run side by side.
    installTool("/bin/getSicutil", "printf 'KV7-partial\\n'; echo $$ > /tmp/first.pid; exec sleep 60");
    installTool("/usr/bin/sicutil", "touch /tmp/second.ran");
    installTool("/bin/silent", "exec >&-; echo $$ > /tmp/silent.pid; exec sleep 60");
    rfSystemInfo &info = *rfSystemInfo::param();
    QString model, silent;
    qint64 modelMs = 0, silentMs = 0;
    auto timed = [](qint64 &ms, const std::function<QString()> &call) {
        QElapsedTimer timer;
        timer.start();
        QString answer = call();
        ms = timer.elapsed();
        return answer;
    };
    std::thread first([&] { model = timed(modelMs, [&] { return info.getSystemModel(); }); });
    std::thread second([&] { silent = timed(silentMs, [&] { return info.executeCmd("/bin/silent", "x"); }); });
    first.join();
    second.join();

    EXPECT_EQ(model, "KV7-partial");
    EXPECT_FALSE(fs::exists("/tmp/second.ran")) << "an answer, even from a hanging tool, ends the search";
    EXPECT_EQ(silent, "");
    for (qint64 ms : {modelMs, silentMs}) {
        EXPECT_GE(ms, 7500);
        EXPECT_LT(ms, 10000);
    }
    EXPECT_FALSE(running(pidFrom("/tmp/first.pid")));
    EXPECT_FALSE(running(pidFrom("/tmp/silent.pid")));
}
