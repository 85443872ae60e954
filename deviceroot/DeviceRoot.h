// A private device root: a mount namespace with a throw-away root file system in which the
// instrument's fixed paths (/tmp, /storage, /Dsp, /DspCpri, /sys/class/thermal, /bin, /usr/bin) are
// this process's own, so that the library can be run against files that a test or a tool puts there
// without touching the machine's real paths.
//
// Inside the root:
//   /usr, /etc                   the host's, read-only
//   /dev                         read-only, with only null, zero, full, random, urandom and tty
//   /proc                        the root's own: a PID namespace of its own shows only the processes
//                                inside; /proc/sys and the other kernel settings are read-only
//   /bin, /usr/bin               writable overlays over the host's /usr/bin (writes stay in the root)
//   /tmp, /storage, /Dsp, ...    empty writable folders; /sys is read-only but for /sys/class/thermal
//   the host folders asked for   at their own paths, read-only unless asked otherwise
// Given a device tree (a copy of an instrument's file system), each fixed path shows the tree's
// folder of the same name instead, as a writable overlay over it, and the tree's other top-level
// folders (/opt, /mnt, ...) stand read-only at their paths. A tree is data: every link in it leads
// where it leads on the instrument with the tree as "/" (or nowhere), never to the host, and every
// mount made from it is nodev and nosuid, and noexec unless its programs are to run. The tree itself
// is visible read-only at /.deviceroot/tree, with its links so rewritten, and is never changed.
// Nothing written inside reaches the host, and no other host path is reachable. The threat model and
// what holds each promise: docs/device-root.md.
#ifndef DEVICEROOT_DEVICEROOT_H
#define DEVICEROOT_DEVICEROOT_H

#include <stdexcept>
#include <string>
#include <vector>

namespace deviceroot {

// Why a device root could not be set up (or reset), with the step and the system's reason.
class SetupError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// A host folder shown inside the root at its own absolute path.
struct HostFolder
{
    std::string path;
    bool writable = false;
};

struct Options
{
    std::vector<HostFolder> hostFolders;
    // Absolute path of a device tree whose folders seed the fixed paths; empty for an empty device.
    std::string deviceTree;
    // Whether the tree's programs are to run; where not, no mount made from the tree executes anything.
    bool treeProgramsRun = false;
};

// The device folders that start empty and writable, besides /bin and /usr/bin.
const std::vector<std::string> &deviceFolders();

// Moves the calling process into a new device root; its working directory is kept when it is
// visible inside, else it becomes "/". Call it while the process has a single thread and before
// anything reads a device path. As root it needs new mount and PID namespaces; otherwise it creates
// a user namespace too, which the kernel must allow. The process goes on as a child in the new PID
// namespace: the process that called stays outside, waits, passes on the signals it gets and exits
// as the child does (so enter() returns in another process, with the same memory and descriptors).
// Throws SetupError when any step fails, with a reason a service engineer can act on: the process's
// view of the file system is then half built, and the caller must stop rather than go on.
void enter(const Options &options);

// Whether `path` names anything in the device tree, links resolved as on the instrument (a link
// itself counts, wherever it leads). Throws SetupError where the kernel cannot resolve them so.
bool treeHolds(const std::string &deviceTree, const std::string &path);

// Drops every capability for good (also across exec of a set-user-ID program), so that a program of a
// copied tree cannot undo the root's read-only mounts or reach the host's devices, and makes the
// process undumpable, so that such a program cannot read its memory or open its descriptors in /proc.
// With `keepForConfinedPrograms`, where the host's root made the root, it keeps what starting a
// confined program as another user and ending it takes (setuid, setgid, setpcap, kill): then this
// process must run no program of the tree but through its launcher (confineTreePrograms).
void dropPrivileges(bool keepForConfinedPrograms = false);

// Puts a launcher at each of `paths` (fixed paths, such as the identity tools) that holds a program of
// the tree: it runs that program confined, whoever made the root: as another user where the host's
// root made it, in user, PID, network, IPC, UTS, cgroup and mount namespaces of its own, with no
// terminal, no capability, no new privileges, an empty environment but PATH and LANG, a seccomp filter
// (no TIOCSTI or TIOCLINUX, ptrace, keyctl, bpf, userfaultfd, mounting or new user namespaces), bounded
// processes, memory, file size and writable space, and unable to see, signal or outlive the process
// that started it. Throws SetupError where this machine cannot confine a program: then none may run.
void confineTreePrograms(const std::vector<std::string> &paths);

// True inside a device root made by enter().
bool isInside();

// Drops everything written to the device folders, /bin and /usr/bin since enter(), leaving the root
// as enter() made it. Host folders shown inside an unseeded device folder stay. Throws SetupError.
void reset();

// Makes every fixed path read-only, as on an instrument whose file systems are mounted so; reset()
// cannot undo it. Throws SetupError.
void makeReadOnly();

} // namespace deviceroot

#endif // DEVICEROOT_DEVICEROOT_H
