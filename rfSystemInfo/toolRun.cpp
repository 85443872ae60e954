#include "toolRun.h"

#include <QDeadlineTimer>

#include <algorithm>
#include <vector>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace rfsi {

namespace {

constexpr char nullDevice[] = "/dev/null";
// Without a pidfd (kernels before 5.3), how often a run looks whether the program has ended.
constexpr qint64 endPollIntervalMs = 10;
// A pipe's default capacity: one read takes what a wake-up finds.
constexpr std::size_t readChunk = 64 * 1024;

class Descriptor
{
public:
    explicit Descriptor(int fd = -1) : fd(fd) {}
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() { reset(); }
    int get() const { return fd; }
    void reset()
    {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }

private:
    int fd;
};

// A descriptor number above the three standard streams, so that putting the streams in place in
// the child can never overwrite it (a caller may have closed its own standard output).
int aboveStandardStreams(int fd)
{
    if (fd > STDERR_FILENO)
        return fd;
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ::close(fd);
    return moved;
}

// How the program starts: standard input and standard error on the null device, standard output
// into the pipe, and every other descriptor closed in the child. A session of its own makes the
// program lead a process group, so that whatever it starts can be killed with it, and leaves it no
// controlling terminal. Signals start as after a fresh login: default dispositions (an ignored
// SIGPIPE or SIGCHLD of the caller is not inherited) and nothing blocked.
class SpawnSetup
{
public:
    explicit SpawnSetup(int outputFd)
    {
        // glibc opens each stream and moves it into place unless the open already gave that number,
        // so a caller with closed standard streams is served as well.
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, nullDevice, O_RDONLY, 0);
        ::posix_spawn_file_actions_adddup2(&actions, outputFd, STDOUT_FILENO);
        ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, nullDevice, O_WRONLY, 0);
        ::posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);

        ::posix_spawnattr_init(&attributes);
        sigset_t signalSet;
        sigemptyset(&signalSet);
        ::posix_spawnattr_setsigmask(&attributes, &signalSet);
        // Every signal, also the two that glibc keeps for itself and that sigfillset leaves out:
        // posix_spawn sets those to "ignore" in the child unless told to default them, and an
        // ignored signal stays ignored across exec.
        std::memset(&signalSet, 0xff, sizeof signalSet);
        ::posix_spawnattr_setsigdefault(&attributes, &signalSet);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    SpawnSetup(const SpawnSetup &) = delete;
    SpawnSetup &operator=(const SpawnSetup &) = delete;
    ~SpawnSetup()
    {
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&actions);
    }

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
};

int openPidFd(pid_t pid)
{
#ifdef SYS_pidfd_open
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    return -1;
#endif
}

// A started program. When the run ends, however it ends, its process group is killed (children
// that keep the output open go too) and the program is reaped. Until we reap it, the program's id,
// and so its group's, stays its own. A caller that ignores SIGCHLD or reaps every child in a handler
// may reap it first; the group's id then stays taken while any member lives, and once none does the
// kernel hands ids out in a cycle, so it comes back only after every other id was given out.
class StartedTool
{
public:
    explicit StartedTool(pid_t pid) : pid(pid), endFd(openPidFd(pid)) {}
    StartedTool(const StartedTool &) = delete;
    StartedTool &operator=(const StartedTool &) = delete;
    ~StartedTool()
    {
        ::kill(-pid, SIGKILL);
        while (::waitpid(pid, nullptr, __WALL) < 0 && errno == EINTR) {
        }
    }

    // Without a pidfd: whether the program has ended (or is gone, reaped by the caller).
    bool hasEnded() const
    {
        siginfo_t info{};
        const int result = ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT | __WALL);
        return result != 0 || info.si_pid == pid;
    }

    // Readable once the program has ended; -1 where the kernel has no pidfd.
    int endDescriptor() const { return endFd.get(); }

private:
    const pid_t pid;
    Descriptor endFd;
};

// Appends what one read of the non-blocking pipe gives; false once no writer is left.
bool readOnce(int fd, std::vector<char> &buffer, QByteArray &output)
{
    ssize_t count;
    do
        count = ::read(fd, buffer.data(), buffer.size());
    while (count < 0 && errno == EINTR);
    if (count > 0)
        output.append(buffer.data(), static_cast<int>(count));
    return count > 0 || (count < 0 && errno == EAGAIN);
}

// Everything the program writes until it ends or the deadline passes. The pipe is read while the
// program runs, so that a full pipe never stalls a program that prints much. Each wait sleeps until
// output comes, the program ends or the deadline passes.
QByteArray collectOutput(int pipe, const StartedTool &tool, const QDeadlineTimer &deadline)
{
    std::vector<char> buffer(readChunk);
    QByteArray output;
    bool outputOpen = true;
    bool ended = false;
    while (!ended && !deadline.hasExpired()) {
        pollfd watched[] = {{outputOpen ? pipe : -1, POLLIN, 0}, {tool.endDescriptor(), POLLIN, 0}};
        qint64 waitMs = deadline.remainingTime();
        if (tool.endDescriptor() < 0)
            waitMs = std::min(waitMs, endPollIntervalMs);
        const int ready = ::poll(watched, 2, static_cast<int>(waitMs));
        if (ready > 0 && watched[0].revents != 0)
            outputOpen = readOnce(pipe, buffer, output);
        ended = tool.endDescriptor() >= 0 ? ready > 0 && watched[1].revents != 0 : tool.hasEnded();
    }
    // What the program left in the pipe, taken until the pipe is empty (or the deadline passes:
    // something it started may still be writing).
    while (outputOpen) {
        const int before = output.size();
        outputOpen = readOnce(pipe, buffer, output) && output.size() > before && !deadline.hasExpired();
    }
    return output;
}

} // namespace

QByteArray runTool(const QByteArray &program, const QList<QByteArray> &arguments, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0)
        return {};
    const Descriptor output(aboveStandardStreams(pipeFds[0]));
    Descriptor input(aboveStandardStreams(pipeFds[1]));
    if (output.get() < 0 || input.get() < 0)
        return {};
    ::fcntl(output.get(), F_SETFL, O_NONBLOCK);

    std::vector<char *> argv{const_cast<char *>(program.constData())};
    for (const QByteArray &argument : arguments)
        argv.push_back(const_cast<char *>(argument.constData()));
    argv.push_back(nullptr);

    // posix_spawn holds the caller until the program runs, and reports a failed exec itself.
    pid_t pid = -1;
    {
        const SpawnSetup spawn(input.get());
        if (::posix_spawn(&pid, program.constData(), &spawn.actions, &spawn.attributes, argv.data(), environ) != 0)
            return {};
    }
    input.reset(); // the program holds the only writing end now
    const StartedTool tool(pid);
    return collectOutput(output.get(), tool, deadline);
}

} // namespace rfsi
