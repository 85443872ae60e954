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

// How the program starts: standard input and standard error on the null device, standard output
// into the pipe, and every other descriptor closed in the child. Close-on-exec would leave open
// what the caller (or a library in its process) opened without it, so all descriptors from 3 on are
// closed, whatever their flags. A session of its own makes the program lead a process group, so
// that whatever it starts can be killed with it. Signals start as after a fresh login: default
// dispositions (an ignored SIGPIPE or SIGCHLD of the caller is not inherited) and nothing blocked.
class SpawnSetup
{
public:
    explicit SpawnSetup(int outputFd)
    {
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

// A started program. When the run ends, however it ends, its process group is killed (children
// that keep the output open go too) and the program is reaped. The group goes before the reaping:
// until then the program's id cannot be given to another process.
class StartedTool
{
public:
    explicit StartedTool(pid_t pid) : pid(pid), endFd(openPidFd(pid)) {}
    StartedTool(const StartedTool &) = delete;
    StartedTool &operator=(const StartedTool &) = delete;
    ~StartedTool()
    {
        ::kill(-pid, SIGKILL);
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }

    // Whether the program has ended; it is left to be reaped.
    bool hasEnded() const
    {
        siginfo_t info{};
        return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid;
    }

    // Readable once the program has ended; -1 where the kernel has no pidfd.
    int endDescriptor() const { return endFd.get(); }

private:
    static int openPidFd(pid_t pid)
    {
#ifdef SYS_pidfd_open
        return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
        return -1;
#endif
    }

    pid_t pid;
    Descriptor endFd;
};

// Reads the program's output pipe into a buffer of its own, one read at a time.
class OutputPipe
{
public:
    explicit OutputPipe(int fd) : fd(fd), buffer(readChunk) {}

    // Appends what one read of the non-blocking pipe gives; false once no writer is left.
    bool readOnce(QByteArray &output)
    {
        ssize_t count;
        do
            count = ::read(fd, buffer.data(), buffer.size());
        while (count < 0 && errno == EINTR);
        if (count > 0)
            output.append(buffer.data(), static_cast<int>(count));
        return count > 0 || (count < 0 && errno == EAGAIN);
    }

    const int fd;

private:
    std::vector<char> buffer;
};

// Everything the program writes until it ends or the deadline passes. The pipe is read while the
// program runs, so that a full pipe never stalls a program that prints much.
QByteArray collectOutput(OutputPipe &pipe, const StartedTool &tool, const QDeadlineTimer &deadline)
{
    QByteArray output;
    bool outputOpen = true;
    while (!tool.hasEnded() && !deadline.hasExpired()) {
        pollfd watched[] = {{outputOpen ? pipe.fd : -1, POLLIN, 0}, {tool.endDescriptor(), POLLIN, 0}};
        qint64 waitMs = deadline.remainingTime();
        if (tool.endDescriptor() < 0)
            waitMs = std::min(waitMs, endPollIntervalMs);
        if (::poll(watched, 2, static_cast<int>(waitMs)) > 0 && watched[0].revents != 0)
            outputOpen = pipe.readOnce(output);
    }
    // What the program left in the pipe, taken until the pipe is empty (or the deadline passes:
    // something it started may still be writing).
    while (outputOpen) {
        const int before = output.size();
        outputOpen = pipe.readOnce(output) && output.size() > before && !deadline.hasExpired();
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
    const Descriptor output(pipeFds[0]);
    Descriptor input(pipeFds[1]);
    ::fcntl(output.get(), F_SETFL, O_NONBLOCK);

    std::vector<char *> argv{const_cast<char *>(program.constData())};
    for (const QByteArray &argument : arguments)
        argv.push_back(const_cast<char *>(argument.constData()));
    argv.push_back(nullptr);

    pid_t pid = 0;
    int error;
    {
        SpawnSetup setup(input.get());
        error = ::posix_spawn(&pid, program.constData(), &setup.actions, &setup.attributes, argv.data(), environ);
    }
    input.reset(); // the program holds the only writing end now
    if (error != 0)
        return {};
    const StartedTool tool(pid);
    OutputPipe pipe(output.get());
    return collectOutput(pipe, tool, deadline);
}

} // namespace rfsi
