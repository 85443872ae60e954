// The command runner with real child programs: arguments, the debug line, what a tool inherits, its
// whole output, the time-out, process groups, and the order of the identity tools. (How their output
// is simplified is a device case: tests/devices/identity-output-*.)
#include "DeviceTest.h"
#include "rfSystem_Info.h"

#include <QElapsedTimer>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

using namespace rfsitest;
namespace fs = std::filesystem;

namespace {

QStringList debugLines;
void collectDebugLine(QtMsgType, const QMessageLogContext &, const QString &message)
{
    debugLines << message;
}

// A process is gone when it no longer exists or waits only to be reaped. A killed process takes a
// moment to go, so this waits up to a second.
bool running(const std::string &pidFile)
{
    pid_t pid = 0;
    std::ifstream(pidFile) >> pid;
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string pidField, name, state;
        if (!(stat >> pidField >> name >> state) || state == "Z")
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

qint64 millisecondsOf(const std::function<void()> &call)
{
    QElapsedTimer timer;
    timer.start();
    call();
    return timer.elapsed();
}

// How the caller treats SIGCHLD, chosen by RFSI_TEST_SIGCHLD: CTest runs these tests once for each.
// Daemons and UIs ignore it, or reap every child in a handler of their own.
void reapEveryChild(int)
{
    const int savedErrno = errno;
    while (::waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    errno = savedErrno;
}

struct sigaction disposition(const std::string &disposition)
{
    struct sigaction action = {};
    action.sa_handler = disposition == "ignored" ? SIG_IGN : disposition == "reaped" ? reapEveryChild : SIG_DFL;
    action.sa_flags = disposition == "nocldwait" ? SA_NOCLDWAIT : disposition == "reaped" ? SA_RESTART : 0;
    EXPECT_TRUE(disposition.empty() || action.sa_handler != SIG_DFL || action.sa_flags != 0) << disposition;
    return action;
}

// Another thread of the caller that forks all the while (up to 100 children): each child holds a copy
// of every descriptor the caller has open at that moment (a tool's pipes among them), as a child
// between fork and exec may, until that thread ends.
void forkAllTheWhile(const std::atomic<bool> &stop)
{
    for (int child = 0; child < 100 && !stop; ++child) {
        if (::fork() == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::sleep(10);
            ::_exit(0);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
}

} // namespace

class CommandRunnerTest : public DeviceTest
{
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        const char *sigchld = std::getenv("RFSI_TEST_SIGCHLD");
        const struct sigaction action = disposition(sigchld ? sigchld : "");
        ASSERT_EQ(::sigaction(SIGCHLD, &action, nullptr), 0);
    }
    void TearDown() override { ::signal(SIGCHLD, SIG_DFL); }

    rfSystemInfo &info = *rfSystemInfo::param();
};

TEST_F(CommandRunnerTest, ArgumentsArePassedLiterallyWithOneDebugLineAndFallbacksAreTheCallers)
{
    const std::pair<const char *, QString> cases[] = {
        {"/storage/opt/myicutil", "<-r><-sol><5><$(touch /tmp/injected) *>"},
        {"/bin/echoargs", "<$(touch /tmp/injected) *>"},
        {"/bin/ICUTIL", "<$(touch /tmp/injected) *>"}, // the test is case-sensitive
    };
    for (const auto &[program, expected] : cases) {
        installTool(program, "printf '<%s>' \"$@\"");
        EXPECT_EQ(info.executeCmd(program, "$(touch /tmp/injected) *"), expected) << program;
    }
    installTool("/bin/count", "echo $#");
    EXPECT_EQ(info.executeCmd("/bin/count", ""), "1") << "an empty argument is an argument of its own";
    // Each run writes one debug line, a program that cannot start too.
    debugLines.clear();
    const QtMessageHandler previous = qInstallMessageHandler(collectDebugLine);
    info.executeCmd("/bin/missing/sicutil", "ProductName");
    info.executeCmd("/bin/cat", "a b");
    qInstallMessageHandler(previous);
    EXPECT_EQ(debugLines,
              QStringList({R"("/bin/missing/sicutil" ("-r", "-sol", "5", "ProductName"))", R"("/bin/cat" ("a b"))"}));
    EXPECT_FALSE(fs::exists("/tmp/injected")) << "the argument went through a shell";
    // Callers choose the fallback of the identity queries.
    EXPECT_TRUE(info.getSystemModelSystemCmd("").isEmpty());
    EXPECT_EQ(info.getSystemSerialSystemCmd("custom"), "custom");
}

// Whatever the caller's standard streams (0, 1, 2 open or closed) and SIGCHLD, and while another of its
// threads forks: the same answer, and the tool gets the caller's environment and directory but
// nothing else of it.
TEST_F(CommandRunnerTest, ToolGetsTheCallersEnvironmentAndNothingElseWhateverStreamsAndSigchldItHas)
{
    installTool("/bin/tool", R"sh(set -- $1; echo "$1"
read -r pid name state parent group session rest < /proc/$$/stat
[ "$group $session" = "$$ $$" ] && echo own-session
echo "$0"; readlink /proc/$$/fd/0 /proc/$$/fd/2
[ -e /proc/$$/fd/$2 ] && echo "descriptor $2 leaked"
grep -E '^SigIgn' /proc/$$/status
echo "$RFSI_CALLER_MARK $(pwd)")sh");
    // The shell clears its signal mask when it starts; awk shows the one it was given.
    writeDeviceFile("/bin/mask",
                    "#!/usr/bin/awk -f\nBEGIN { while ((getline line < \"/proc/self/status\") > 0) "
                    "if (line ~ /^SigBlk/) print line }\n",
                    0755);
    for (const char *sigchld : {"", "ignored", "nocldwait", "reaped"})
        for (int closed = 0; closed < 8; ++closed) { // bit n: standard stream n closed
            SCOPED_TRACE(std::string("SIGCHLD ") + sigchld + ", closed streams mask " + std::to_string(closed));
            inFreshProcess([sigchld, closed] {
                // What the caller holds: a descriptor opened without close-on-exec, a blocked and an
                // ignored signal, an environment variable and a working directory of its own.
                const int descriptor = ::open("/dev/null", O_RDONLY);
                sigset_t blocked;
                sigemptyset(&blocked);
                sigaddset(&blocked, SIGUSR1);
                ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
                ::signal(SIGTERM, SIG_IGN);
                ::setenv("RFSI_CALLER_MARK", "mark", 1);
                fs::current_path("/storage");
                const struct sigaction action = disposition(sigchld);
                ::sigaction(SIGCHLD, &action, nullptr);
                rfSystemInfo &caller = *rfSystemInfo::param();
                int saved[3];
                for (int fd = 0; fd < 3; ++fd) {
                    saved[fd] = ::fcntl(fd, F_DUPFD_CLOEXEC, 10);
                    if (closed & (1 << fd))
                        ::close(fd);
                }
                QStringList answers;
                qint64 longestMs = 0;
                std::atomic<bool> stop{false};
                std::thread forking(forkAllTheWhile, std::cref(stop));
                // A bare name is searched in PATH.
                for (int run = 0; run < 10; ++run)
                    longestMs = std::max(longestMs, millisecondsOf([&] {
                                             answers << caller.executeCmd("tool", std::to_string(run) + " " +
                                                                                      std::to_string(descriptor));
                                         }));
                answers << caller.executeCmd("/bin/mask", "");
                stop = true;
                forking.join();
                for (int fd = 0; fd < 3; ++fd)
                    ::dup3(saved[fd], fd, 0);
                for (int run = 0; run < 10; ++run)
                    EXPECT_EQ(answers.value(run),
                              QStringLiteral("%1 own-session /bin/tool /dev/null /dev/null SigIgn: 0000000000000000 "
                                             "mark /storage")
                                  .arg(run));
                EXPECT_EQ(answers.value(10), "SigBlk: 0000000000000000");
                EXPECT_LT(longestMs, 8000) << "a run waited on a descriptor that a forked child held";
            });
        }
}

TEST_F(CommandRunnerTest, OutputHasNoLimitButTheTimeOutAndStandardErrorIsNeverKept)
{
    // 500,000 lines of 99 digits: 50 MB that come back whole, in order, each line end one space.
    installTool("/bin/tool", "seq -f '%099g' 1 500000");
    QString expected;
    for (int line = 1; line <= 500000; ++line)
        expected += QString::number(line).rightJustified(99, QLatin1Char('0')) + (line < 500000 ? " " : "");
    EXPECT_TRUE(info.executeCmd("/bin/tool", "x") == expected) << "the 50 MB came back otherwise";

    installTool("/bin/tool", "head -c 300000000 /dev/zero >&2; echo KV7");
    inFreshProcess([] {
        rusage before{}, after{};
        ::getrusage(RUSAGE_SELF, &before);
        EXPECT_EQ(rfSystemInfo::param()->executeCmd("/bin/tool", "x"), "KV7");
        ::getrusage(RUSAGE_SELF, &after);
        EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 64 * 1024) << "kilobytes of peak memory for 300 MB on stderr";
    });
}

// Each case a tool of its own, side by side: those that hang wait out the 8000 ms bound.
TEST_F(CommandRunnerTest, ToolsThatMisbehaveAreEndedInTimeAndLeaveNothingBehind)
{
    const struct
    {
        const char *tool, *script, *answer;
        qint64 fromMs, toMs;
    } cases[] = {
        {"/bin/missing", nullptr, "", 0, 3000},
        {"/bin/keeps-output-open", "sleep 60 & echo $! > /tmp/${0##*/}.pid; echo KV7", "KV7", 0, 3000},
        {"/bin/own-session-child", "setsid sleep 5 & echo KV7", "KV7", 0, 3000},
        {"/bin/killed", "echo KV7; kill -9 $$; echo never", "KV7", 0, 3000},
        {"/bin/silent", "exec >&-; echo $$ > /tmp/${0##*/}.pid; exec sleep 60", "", 7500, 10000},
        // An answer, even from a hanging tool, ends the search for the model.
        {"/bin/getSicutil", "printf 'KV7-partial\\n'; echo $$ > /tmp/${0##*/}.pid; exec sleep 60", "KV7-partial", 7500,
         10000},
    };
    // Every tool is written before any runs: a program being spawned holds a copy of a script still
    // open for writing until its exec, and the kernel refuses to run that script meanwhile (ETXTBSY).
    for (const auto &tool : cases)
        if (tool.script)
            installTool(tool.tool, tool.script);
    installTool("/usr/bin/sicutil", "touch /tmp/second.ran");
    QString answers[std::size(cases)];
    qint64 elapsedMs[std::size(cases)] = {};
    std::vector<std::thread> threads;
    rusage before{}, after{};
    ::getrusage(RUSAGE_SELF, &before);
    for (size_t i = 0; i < std::size(cases); ++i)
        threads.emplace_back([&, i] {
            const std::string tool = cases[i].tool;
            elapsedMs[i] = millisecondsOf(
                [&] { answers[i] = tool == "/bin/getSicutil" ? info.getSystemModel() : info.executeCmd(tool, "x"); });
        });
    for (std::thread &thread : threads)
        thread.join();
    ::getrusage(RUSAGE_SELF, &after);
    const auto cpuMs = [](const rusage &usage) {
        return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000 +
               (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000;
    };
    EXPECT_LT(cpuMs(after) - cpuMs(before), 1000) << "milliseconds of CPU while waiting: no busy waiting";
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(cases[i].tool);
        EXPECT_EQ(answers[i], cases[i].answer);
        EXPECT_GE(elapsedMs[i], cases[i].fromMs);
        EXPECT_LT(elapsedMs[i], cases[i].toMs);
        const std::string pidFile = "/tmp/" + fs::path(cases[i].tool).filename().string() + ".pid";
        EXPECT_FALSE(fs::exists(pidFile) && running(pidFile));
    }
    EXPECT_FALSE(fs::exists("/tmp/second.ran"));
}
