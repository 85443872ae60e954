// Product identity: the command runner with real child programs, the identity tools' order and
// fallbacks, and the version constants.
#include "DeviceRoot.h"
#include "DeviceTest.h"
#include "rfSystem_Info.h"

#include <QElapsedTimer>

#include <csignal>
#include <filesystem>

#include <fcntl.h>
#include <unistd.h>

using namespace rfsitest;
namespace fs = std::filesystem;

namespace {

// A tool that answers per field, and leaves a mark that it ran.
std::string answeringTool(const std::string &name, const std::string &model, const std::string &serial)
{
    return "touch /tmp/" + name +
           ".ran\n"
           "[ \"$1 $2 $3\" = '-r -sol 5' ] || exit 1\n"
           "case \"$4\" in ProductName) printf '" +
           model + "';; ProductSerialNumber) printf '" + serial + "';; esac";
}

// What `seq -f '%099g' 1 N` prints, simplified: each number as 99 digits, line ends become spaces.
QString numberedLines(int count)
{
    QString text;
    text.reserve(count * 100);
    for (int line = 1; line <= count; ++line)
        text += QString::number(line).rightJustified(99, QLatin1Char('0')) + QLatin1Char(' ');
    text.chop(1);
    return text;
}

QStringList debugLines;
void collectDebugLine(QtMsgType, const QMessageLogContext &, const QString &message)
{
    debugLines << message;
}

} // namespace

class IdentityTest : public DeviceTest
{
protected:
    rfSystemInfo &info = *rfSystemInfo::param();
};

TEST_F(IdentityTest, OutputIsSimplifiedAndEndsAtTheFirstNul)
{
    const std::pair<const char *, QString> cases[] = {
        {"printf '  ABC   \\n'", "ABC"},
        {"printf 'A B\\nC\\n'", "A B C"},
        {"printf '\\t x \\r\\n\\n'", "x"},
        {"printf 'ABC\\000DEF'", "ABC"},
        {"printf 'Pr\\303\\274f'", QString::fromUtf8("Prüf")},
        {"echo only-on-stderr >&2", ""},
        {"echo failed; exit 3", "failed"}, // the exit code plays no part
        // 50 MB: output has no limit but the time-out, and arrives whole and in order.
        {"seq -f '%099g' 1 500000", numberedLines(500000)},
    };
    for (const auto &[script, expected] : cases) {
        installTool("/bin/tool", script);
        const QString answer = info.executeCmd("/bin/tool", "x");
        EXPECT_EQ(answer.size(), expected.size()) << script;
        EXPECT_TRUE(answer == expected) << script << ": " << answer.left(200).toStdString();
    }
}

TEST_F(IdentityTest, SicutilFamilyGetsItsOptionsAndArgumentsArePassedLiterally)
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
    EXPECT_FALSE(fs::exists("/tmp/injected")) << "the argument went through a shell";
}

TEST_F(IdentityTest, EachRunWritesOneDebugLine)
{
    debugLines.clear();
    const QtMessageHandler previous = qInstallMessageHandler(collectDebugLine);
    info.executeCmd("/bin/missing/sicutil", "ProductName");
    info.executeCmd("/bin/cat", "a b");
    qInstallMessageHandler(previous);
    EXPECT_EQ(debugLines,
              QStringList({R"("/bin/missing/sicutil" ("-r", "-sol", "5", "ProductName"))", R"("/bin/cat" ("a b"))"}));
}

TEST_F(IdentityTest, ToolGetsTheCallersEnvironmentAndDirectoryButNothingElseOfIt)
{
    installTool("/bin/tool", R"sh(read -r pid name state parent group session rest < /proc/$$/stat
[ "$group $session" = "$$ $$" ] && echo own-session
echo "$0"; readlink /proc/$$/fd/0 /proc/$$/fd/2
[ -e /proc/$$/fd/$1 ] && echo "descriptor $1 leaked"
grep -E '^SigIgn' /proc/$$/status
echo "$RFSI_CALLER_MARK $(pwd)")sh");
    // The shell clears its signal mask when it starts; awk shows the one it was given.
    writeDeviceFile("/bin/mask",
                    "#!/usr/bin/awk -f\nBEGIN { while ((getline line < \"/proc/self/status\") > 0) "
                    "if (line ~ /^SigBlk/) print line }\n",
                    0755);
    // What the caller holds: a descriptor opened without close-on-exec, a blocked and an ignored
    // signal, an environment variable and a working directory of its own.
    const int descriptor = ::open("/dev/null", O_RDONLY);
    sigset_t blocked, previousMask;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &previousMask);
    struct sigaction ignore = {}, previousAction = {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGTERM, &ignore, &previousAction);
    ::setenv("RFSI_CALLER_MARK", "mark", 1);
    const fs::path previousDirectory = fs::current_path();
    fs::current_path("/storage");

    // A bare name is searched in PATH.
    const QString answer = info.executeCmd("tool", std::to_string(descriptor)) + " " + info.executeCmd("/bin/mask", "");

    fs::current_path(previousDirectory);
    ::unsetenv("RFSI_CALLER_MARK");
    ::sigaction(SIGTERM, &previousAction, nullptr);
    ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
    ::close(descriptor);
    EXPECT_EQ(
        answer.toStdString(),
        "own-session /bin/tool /dev/null /dev/null SigIgn: 0000000000000000 mark /storage SigBlk: 0000000000000000");
}

TEST_F(IdentityTest, MissingProgramAnswersEmptyWithoutWaiting)
{
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(info.executeCmd("/bin/no-such-tool", "x"), "");
    EXPECT_LT(timer.elapsed(), 2000) << "a program that cannot start must not be waited for";
}

TEST_F(IdentityTest, IdentityToolsAreAskedInOrderWithFallbacks)
{
    struct Case
    {
        const char *description;
        std::string first, second; // tool scripts; empty: no tool
        QString model, serial;
        bool secondAsked;
    };
    const Case cases[] = {
        {"no tools", "", "", "KV720", "SERIALNOTSET", false},
        {"first answers", answeringTool("first", "KV721", "S-1"), answeringTool("second", "X", "X"), "KV721", "S-1",
         false},
        {"first absent", "", answeringTool("second", "KV722", "S-2\\n"), "KV722", "S-2", true},
        {"first prints only white space", answeringTool("first", " \\n\\t", " "), answeringTool("second", "M", "S"),
         "M", "S", true},
        {"first knows the model only", answeringTool("first", "KV721", ""), answeringTool("second", "X", "S-2"),
         "KV721", "S-2", true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.description);
        deviceroot::reset();
        if (!c.first.empty())
            installTool("/bin/getSicutil", c.first);
        if (!c.second.empty())
            installTool("/usr/bin/sicutil", c.second);
        EXPECT_EQ(info.getSystemModel(), c.model);
        EXPECT_EQ(info.getSystemSerial(), c.serial);
        EXPECT_EQ(fs::exists("/tmp/second.ran"), c.secondAsked);
    }
    deviceroot::reset();
    EXPECT_EQ(info.getSystemModelSystemCmd(""), "");
    EXPECT_TRUE(info.getSystemModelSystemCmd("").isEmpty());
    EXPECT_EQ(info.getSystemSerialSystemCmd("custom"), "custom");
}

TEST_F(IdentityTest, VersionTextsAreTheLibrarysOwn)
{
    EXPECT_EQ(info.checkSystemRfSerial(), "RFSERIAL");
    EXPECT_EQ(info.checkSystemUIVersion(), "5.010.005a");
    EXPECT_EQ(info.checkSystemFirmwareVersion(), RFSI_TEST_PACKAGE_VERSION);
}
