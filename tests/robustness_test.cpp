// What a long-running caller relies on: no resource grows with use or with hostile content, the single
// instance is safe to reach from many threads, and the library never writes to the device.
#include "DeviceRoot.h"
#include "DeviceTest.h"
#include "QueryRound.h"
#include "deviceFile.h"
#include "devicePaths.h"
#include "rfSystem_Info.h"

#include <QProcess>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace rfsitest;
namespace fs = std::filesystem;

namespace {

struct Usage
{
    long openFds = 0;
    long children = 0;
    long residentKiB = 0;
    size_t heapInUse = 0;
};

Usage currentUsage()
{
    Usage usage;
    for ([[maybe_unused]] const auto &fd : fs::directory_iterator("/proc/self/fd"))
        ++usage.openFds;
    const std::string self = std::to_string(::getpid());
    for (const auto &process : fs::directory_iterator("/proc")) {
        std::ifstream stat(process.path() / "stat");
        std::string pid, name, state, parent;
        if (stat >> pid >> name >> state >> parent && parent == self)
            ++usage.children;
    }
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0)
            usage.residentKiB = std::stol(line.substr(6));
    usage.heapInUse = ::mallinfo2().uordblks;
    return usage;
}

// Every entry below the fixed paths with its type, mode, size and time, and a digest of each file's
// content but the host's programs that /bin and /usr/bin show. The source and build trees may be shown
// inside /tmp; they are not the device.
std::string deviceSnapshot()
{
    QProcess find; // the trees' paths are arguments of the shell, never part of its text
    find.start("sh", {"-c",
                      "find /tmp /storage /Dsp /DspCpri /sys/class/thermal /bin /usr/bin \\( -path \"$0\" -o -path "
                      "\"$1\" \\) -prune -o -printf '%p %y %m %s %T@\\n' \\( -type f ! -path '*bin/*' -o -type f "
                      "-size -4096c \\) -exec md5sum {} + | sort",
                      RFSI_TEST_SOURCE_DIR, RFSI_TEST_BINARY_DIR});
    EXPECT_TRUE(find.waitForFinished(60000) && find.exitCode() == 0);
    return find.readAllStandardOutput().toStdString();
}

} // namespace

class RobustnessTest : public DeviceTest
{
};

TEST_F(RobustnessTest, TenThousandRoundsLeaveDescriptorsProcessesAndMemoryFlat)
{
#ifdef RFSI_TEST_SANITIZED
    GTEST_SKIP() << "a sanitizer's allocator keeps freed memory on purpose; the plain build measures";
#endif
    installSampleDevice();
    // glibc's per-thread cache counts the blocks it keeps for reuse as in use; without it, the heap in
    // use is exact. The fresh process inherits the setting.
    ::setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);
    inFreshProcess([] {
        rfSystemInfo &info = *rfSystemInfo::param();
        // Warm-up: Qt's caches fill and the allocator's free lists settle.
        for (int round = 0; round < 1000; ++round)
            askEveryQuery(info, round % 10 == 0);
        const Usage before = currentUsage();
        for (int round = 0; round < 10000; ++round)
            askEveryQuery(info, round % 10 == 0); // identity tools in every tenth round: each is a process
        const Usage after = currentUsage();
        EXPECT_EQ(after.openFds, before.openFds);
        EXPECT_EQ(after.children, 0);
        EXPECT_LT(static_cast<long>(after.heapInUse) - static_cast<long>(before.heapInUse), 1024)
            << "bytes of heap kept";
        EXPECT_LT(after.residentKiB - before.residentKiB, 512) << "KiB of resident memory gained";
    });
}

// Threads that reach the single instance at once all get it with its inventory loaded, and then ask,
// each through its own object for the queries that keep state in the object, what the others ask.
TEST_F(RobustnessTest, ThreadsShareTheLoadedInstanceAndRunTheQueriesThatShareNoState)
{
    installSampleDevice();
    inFreshProcess([] {
        auto stateless = [](rfSystemInfo &shared, rfSystemInfo &own) {
            QStringList answers;
            answers << shared.getDPBModuleRevision() << QString::fromStdString(shared.getDpbRfSysInfoFromFile(3, true))
                    << QString::fromStdString(shared.getTopRfSysInfoFromFile(11, false)) << shared.getSystemDpbSerial()
                    << shared.checkRFModuleRevision() << QString::fromStdString(shared.getMixerModuStringRevision())
                    << shared.checkSystemTemperature() << shared.checkFlatnessFile() << shared.checkDncFreqCalFile()
                    << QString::number(shared.getDspActiveCount()) << shared.checkCpriDspString(1)
                    << shared.checkCpriDspVersion(0) << own.checkDspVersion(2) << own.checkDspString(2);
#ifndef RFSI_TEST_EMULATED
            // Not under qemu-user: it starts a program by forking the whole emulator, and a fork taken
            // while another thread holds one of qemu's own locks leaves the child waiting before exec
            // (about one run in twenty here). The native builds, ThreadSanitizer's too, cover it.
            answers << shared.executeCmd("/bin/getSicutil", "ProductName");
#endif
            return answers;
        };
        constexpr int threadCount = 16;
        std::atomic<bool> go{false}; // all threads reach param() at once
        rfSystemInfo *instances[threadCount] = {};
        std::vector<QStringList> answers[threadCount];
        std::vector<std::thread> threads;
        for (int i = 0; i < threadCount; ++i)
            threads.emplace_back([&, i] {
                while (!go.load(std::memory_order_acquire))
                    std::this_thread::yield();
                instances[i] = rfSystemInfo::param();
                rfSystemInfo own;
                for (int round = 0; round < 25; ++round)
                    answers[i].push_back(stateless(*instances[i], own));
            });
        go.store(true, std::memory_order_release);
        for (std::thread &thread : threads)
            thread.join();
        rfSystemInfo reference;
        const QStringList expected = stateless(*rfSystemInfo::param(), reference);
        ASSERT_EQ(expected.value(0), "C");
        for (int i = 0; i < threadCount; ++i) {
            EXPECT_EQ(instances[i], instances[0]);
            EXPECT_EQ(std::count(answers[i].begin(), answers[i].end(), expected), 25)
                << "thread " << i << " saw another answer (the inventory before it was loaded?)";
        }
    });
}

TEST_F(RobustnessTest, ReadOnlyDeviceAnswersAlikeAndNothingIsEverWritten)
{
    installSampleDevice();
    inFreshProcess([] {
        const auto before = deviceSnapshot();
        rfSystemInfo &info = *rfSystemInfo::param();
        const QStringList writable = askEveryQuery(info);
        EXPECT_EQ(deviceSnapshot(), before) << "a query changed the device";

        deviceroot::makeReadOnly();
        for (const char *path : {"/tmp/probe", "/storage/probe", "/bin/probe", "/usr/bin/probe", "/Dsp/probe"})
            EXPECT_FALSE(std::ofstream(path).good()) << path << ": the device is not read-only";
        rfSystemInfo::updatedSystemInfo = false;
        EXPECT_EQ(askEveryQuery(info), writable);
    });
}

std::vector<std::string> everyPathRead()
{
    std::vector<std::string> paths(std::begin(rfsi::paths::deviceFiles), std::end(rfsi::paths::deviceFiles));
    for (int sensor : rfsi::paths::temperatureSensors)
        paths.push_back(rfsi::paths::thermalZonePath(sensor));
    paths.push_back("/bin/getSicutil");
    return paths;
}

// A sparse file of 4 GiB at every path (a few KiB on disk) is read only up to the limit: every query
// answers within an address space of 1 GiB, and no answer is longer than the limit.
TEST_F(RobustnessTest, FilesOfGigabytesAreReadOnlyUpToTheLimit)
{
    for (const std::string &path : everyPathRead()) {
        fs::create_directories(fs::path(path).parent_path());
        writeDeviceFile(path, "", 0755);
        fs::resize_file(path, std::uintmax_t(4) << 30);
    }
    inFreshProcess([] {
#ifndef RFSI_TEST_SANITIZED // a sanitizer reserves terabytes of address space for itself
        const rlimit oneGibibyte{1 << 30, 1 << 30};
        ASSERT_EQ(::setrlimit(RLIMIT_AS, &oneGibibyte), 0);
#endif
        rfSystemInfo::updatedSystemInfo = false;
        rfSystemInfo info;
        const QStringList answers = askEveryQuery(info);
        // Present, and a first line of NUL bytes: empty.
        EXPECT_TRUE(answers.contains("OK/OK/OK") && answers.contains("OK()")) << answers.join(' ').toStdString();
        for (const QString &answer : answers)
            EXPECT_LE(answer.size(), rfsi::maxFileBytes);
    });
}

// Hostile content is read within the file's size; nodes that are no file (a FIFO or a folder at
// every path) leave no descriptor open.
TEST_F(RobustnessTest, HostileContentAndNodesThatAreNoFilesAreReadWithinBounds)
{
    std::string garbage(65536, '\0');
    std::ifstream("/dev/urandom").read(garbage.data(), static_cast<std::streamsize>(garbage.size()));
    const std::string contents[] = {
        garbage,
        "3\r" + std::string("A\rB\rC\r"),             // CR-only line ends: one long line
        "\xff\xfe\xc3(\xed\xa0\x80\n\x80\x81\n",      // invalid UTF-8
        std::string(8 << 20, 'x') + "\n",             // one line of 8 MiB
        std::string("2\0\0\nA\0B\n", 8) + "\r\n\r\n", // NUL bytes and CRLF
        "fifo",
        "folder",
    };
    const std::vector<std::string> paths = everyPathRead();
    for (const std::string &content : contents) {
        SCOPED_TRACE(content.size() < 8 ? "a " + content + " at every path"
                                        : std::to_string(content.size()) + " bytes");
        deviceroot::reset();
        for (const std::string &path : paths) {
            fs::create_directories(fs::path(path).parent_path());
            if (content == "fifo" || content == "folder")
                ASSERT_TRUE(content == "fifo" ? ::mkfifo(path.c_str(), 0644) == 0 : fs::create_directory(path)) << path;
            else
                writeDeviceFile(path, content, 0755);
        }
        rfSystemInfo info;
        const long before = currentUsage().openFds;
        for (const QString &answer : askEveryQuery(info))
            EXPECT_LE(answer.toUtf8().size(), static_cast<int>(content.size()) + 64);
        EXPECT_EQ(currentUsage().openFds, before);
    }
}
