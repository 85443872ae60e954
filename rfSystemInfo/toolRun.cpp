#include "toolRun.h"

#include <QDeadlineTimer>

#include <algorithm>
#include <vector>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define RFSI_THREAD_SANITIZER 1
#endif
#endif
#ifndef RFSI_THREAD_SANITIZER
#define RFSI_THREAD_SANITIZER 0
#endif

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

// What the child needs between clone and exec; all prepared by the parent, so the child only makes
// system calls.
struct ChildSetup
{
    const char *path;
    char *const *argv;
    char *const *envp;
    int outputFd;
    int errorFd; // close-on-exec: the child writes its errno there when the exec fails
};

// The kernel's sigaction with every field zero: SIG_DFL, no flags, nothing blocked. Its layout differs
// between architectures, but all zeros means the same on each; 64 signals everywhere we build.
constexpr unsigned long defaultAction[8] = {};
constexpr unsigned long emptySignalSet = 0;
constexpr std::size_t kernelSignalSetSize = 8;

// Opens the null device as `target`. A caller that closed its own standard streams leaves the
// lowest numbers free, so the open may already give `target` itself, which dup3 refuses to copy.
[[maybe_unused]] __attribute__((no_sanitize("address", "thread", "undefined"))) long placeNullDevice(int flags,
                                                                                                     int target)
{
    const long fd = ::syscall(SYS_openat, AT_FDCWD, nullDevice, flags);
    return fd < 0 || fd == target ? fd : ::syscall(SYS_dup3, fd, target, 0);
}

void childSyscallOrExit(long result, const ChildSetup &setup)
{
    if (result >= 0)
        return;
    const int error = errno;
    ::syscall(SYS_write, setup.errorFd, &error, sizeof error);
    ::syscall(SYS_exit_group, 127);
}

// Runs in the child, which may share the caller's memory until the exec: raw system calls only, no
// allocation, no signal handler of the caller (all signals stay blocked until their dispositions are
// reset), and nothing the sanitizers would record as the caller's own doing.
[[maybe_unused]] __attribute__((no_sanitize("address", "thread", "undefined"))) int startChild(void *argument)
{
    const ChildSetup &setup = *static_cast<const ChildSetup *>(argument);
    for (int signal = 1; signal <= 64; ++signal)
        if (signal != SIGKILL && signal != SIGSTOP)
            ::syscall(SYS_rt_sigaction, signal, defaultAction, nullptr, kernelSignalSetSize);
    childSyscallOrExit(::syscall(SYS_setsid), setup);
    childSyscallOrExit(placeNullDevice(O_RDONLY, STDIN_FILENO), setup);
    childSyscallOrExit(::syscall(SYS_dup3, setup.outputFd, STDOUT_FILENO, 0), setup);
    childSyscallOrExit(placeNullDevice(O_WRONLY, STDERR_FILENO), setup);
    // Everything from 3 on but the error pipe, which closes with the exec.
    if (setup.errorFd > STDERR_FILENO + 1)
        childSyscallOrExit(::syscall(SYS_close_range, STDERR_FILENO + 1, setup.errorFd - 1, 0), setup);
    childSyscallOrExit(::syscall(SYS_close_range, setup.errorFd + 1, ~0U, 0), setup);
    childSyscallOrExit(::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &emptySignalSet, nullptr, kernelSignalSetSize),
                       setup);
    childSyscallOrExit(::syscall(SYS_execve, setup.path, setup.argv, setup.envp), setup);
    return 127;
}

// Blocks every signal of the calling thread while it lives, so that no handler of the caller runs in
// a child that shares its memory.
class AllSignalsBlocked
{
public:
    AllSignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &previous);
    }
    AllSignalsBlocked(const AllSignalsBlocked &) = delete;
    AllSignalsBlocked &operator=(const AllSignalsBlocked &) = delete;
    ~AllSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &previous, nullptr); }

private:
    sigset_t previous;
};

// A started program. `quiet`: it was started without an exit signal, so the caller's SIGCHLD
// disposition and handlers neither see it nor reap it, and it stays ours until we reap it.
struct Child
{
    pid_t pid = -1;
    int endFd = -1;
    bool quiet = false;
};

// Whether the kernel has close_range (Linux 5.9), which the child needs; asked once with a range
// that holds no descriptor.
[[maybe_unused]] bool kernelClosesRanges()
{
    static const bool available = ::syscall(SYS_close_range, ~0U, ~0U, 0) == 0;
    return available;
}

// Starts the program with clone: no exit signal, a pidfd, and the caller's memory shared until the
// exec, as posix_spawn does. -1 with errno when this way is not available (kernels before 5.9,
// emulators that cannot share memory with a child or give it no exit signal).
pid_t startQuietly(const ChildSetup &setup, int &endFd)
{
#if defined(__SANITIZE_THREAD__) || RFSI_THREAD_SANITIZER
    // ThreadSanitizer takes a clone for a fork, and cannot follow one made while other threads run.
    (void)setup;
    (void)endFd;
    errno = ENOSYS;
    return -1;
#else
    if (!kernelClosesRanges()) {
        errno = ENOSYS;
        return -1;
    }
    constexpr std::size_t stackSize = 64 * 1024;
    void *stack = ::mmap(nullptr, stackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (stack == MAP_FAILED)
        return -1;
    pid_t pid;
    {
        const AllSignalsBlocked blocked;
        pid = ::clone(startChild, static_cast<char *>(stack) + stackSize, CLONE_VM | CLONE_VFORK | CLONE_PIDFD,
                      const_cast<ChildSetup *>(&setup), &endFd);
    }
    const int error = errno;
    ::munmap(stack, stackSize);
    errno = error;
    return pid;
#endif
}

// How the program starts with posix_spawn, where clone cannot be used: standard input and standard
// error on the null device, standard output into the pipe, and every other descriptor closed in the
// child. A session of its own makes the program lead a process group, so that whatever it starts
// can be killed with it. Signals start as after a fresh login: default dispositions (an ignored
// SIGPIPE or SIGCHLD of the caller is not inherited) and nothing blocked.
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

int openPidFd(pid_t pid)
{
#ifdef SYS_pidfd_open
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
    return -1;
#endif
}

// Starts the program; pid -1 when it cannot be started.
Child start(const ChildSetup &setup)
{
    Child child;
    child.pid = startQuietly(setup, child.endFd);
    if (child.pid > 0) {
        child.quiet = true;
        return child;
    }
    if (errno != EINVAL && errno != ENOSYS && errno != EPERM)
        return {};
    const SpawnSetup spawn(setup.outputFd);
    if (::posix_spawn(&child.pid, setup.path, &spawn.actions, &spawn.attributes, setup.argv, setup.envp) != 0)
        return {};
    child.endFd = openPidFd(child.pid);
    return child;
}

// Whether the child reported a failed exec. Both ways of starting hold the caller until the child has
// run the program or given up, so what it reported is in the pipe already: one read that never
// waits (the pipe may stay open in a child that another thread of the caller forked meanwhile).
bool execFailed(int errorFd)
{
    int error = 0;
    ssize_t count;
    do
        count = ::read(errorFd, &error, sizeof error);
    while (count < 0 && errno == EINTR);
    return count > 0;
}

// A started program. When the run ends, however it ends, its process group is killed (children
// that keep the output open go too) and the program is reaped. The group goes before the reaping:
// until then the program's id, and so its group's, cannot be given to another process. A program
// started without an exit signal is reaped by us alone; one started with posix_spawn may have been
// reaped by the caller (a SIGCHLD handler that reaps every child, or SIGCHLD ignored), and then its
// group is left alone rather than risk signalling an id that was given to someone else.
class StartedTool
{
public:
    explicit StartedTool(const Child &child) : child(child), endFd(child.endFd) {}
    StartedTool(const StartedTool &) = delete;
    StartedTool &operator=(const StartedTool &) = delete;
    ~StartedTool()
    {
        if (child.quiet || stillOurs())
            ::kill(-child.pid, SIGKILL);
        while (::waitpid(child.pid, nullptr, __WALL) < 0 && errno == EINTR) {
        }
    }

    // Without a pidfd: whether the program has ended (or is gone, reaped by the caller).
    bool hasEnded() const
    {
        siginfo_t info{};
        const int result = ::waitid(P_PID, static_cast<id_t>(child.pid), &info, WEXITED | WNOHANG | WNOWAIT | __WALL);
        return result != 0 || info.si_pid == child.pid;
    }

    // Readable once the program has ended; -1 where the kernel has no pidfd.
    int endDescriptor() const { return endFd.get(); }

private:
    // Running, or ended and not yet reaped: its id is still its own.
    bool stillOurs() const
    {
        siginfo_t info{};
        return ::waitid(P_PID, static_cast<id_t>(child.pid), &info, WEXITED | WNOHANG | WNOWAIT | __WALL) == 0;
    }

    const Child child;
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
// program runs, so that a full pipe never stalls a program that prints much. Each wait sleeps until
// output comes, the program ends or the deadline passes.
QByteArray collectOutput(OutputPipe &pipe, const StartedTool &tool, const QDeadlineTimer &deadline)
{
    QByteArray output;
    bool outputOpen = true;
    bool ended = false;
    while (!ended && !deadline.hasExpired()) {
        pollfd watched[] = {{outputOpen ? pipe.fd : -1, POLLIN, 0}, {tool.endDescriptor(), POLLIN, 0}};
        qint64 waitMs = deadline.remainingTime();
        if (tool.endDescriptor() < 0)
            waitMs = std::min(waitMs, endPollIntervalMs);
        const int ready = ::poll(watched, 2, static_cast<int>(waitMs));
        if (ready > 0 && watched[0].revents != 0)
            outputOpen = pipe.readOnce(output);
        ended = tool.endDescriptor() >= 0 ? ready > 0 && watched[1].revents != 0 : tool.hasEnded();
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
    const Descriptor output(aboveStandardStreams(pipeFds[0]));
    Descriptor input(aboveStandardStreams(pipeFds[1]));
    int errorFds[2];
    if (::pipe2(errorFds, O_CLOEXEC) != 0)
        return {};
    const Descriptor errorOutput(aboveStandardStreams(errorFds[0]));
    Descriptor errorInput(aboveStandardStreams(errorFds[1]));
    if (output.get() < 0 || input.get() < 0 || errorOutput.get() < 0 || errorInput.get() < 0)
        return {};
    ::fcntl(output.get(), F_SETFL, O_NONBLOCK);
    ::fcntl(errorOutput.get(), F_SETFL, O_NONBLOCK);

    std::vector<char *> argv{const_cast<char *>(program.constData())};
    for (const QByteArray &argument : arguments)
        argv.push_back(const_cast<char *>(argument.constData()));
    argv.push_back(nullptr);

    const ChildSetup setup{program.constData(), argv.data(), environ, input.get(), errorInput.get()};
    const Child child = start(setup);
    input.reset(); // the program holds the only writing end now
    errorInput.reset();
    if (child.pid <= 0)
        return {};
    const StartedTool tool(child);
    if (execFailed(errorOutput.get()))
        return {};
    OutputPipe pipe(output.get());
    return collectOutput(pipe, tool, deadline);
}

} // namespace rfsi
