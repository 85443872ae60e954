// A private device root: a mount namespace with a throw-away root file system in which the
// instrument's fixed paths (/tmp, /storage, /Dsp, /DspCpri, /sys/class/thermal, /bin, /usr/bin) are
// this process's own, so that the library can be run against files that a test or a tool puts there
// without touching the machine's real paths.
//
// Inside the root:
//   /usr, /etc, /dev             the host's, read-only
//   /proc                        the host's
//   /bin, /usr/bin               writable overlays over the host's /usr/bin (writes stay in the root)
//   /tmp, /storage, /Dsp, ...    empty writable folders
//   the host folders asked for   at their own paths, read-only unless asked otherwise
// Given a device tree (a copy of an instrument's file system), each fixed path shows the tree's
// folder of the same name instead, as a writable overlay over it: the tree itself is visible
// read-only at /.deviceroot/tree and is never changed. Nothing written inside reaches the host, and no other host path
// is reachable.
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
};

// The device folders that start empty and writable, besides /bin and /usr/bin.
const std::vector<std::string> &deviceFolders();

// Moves the calling process into a new device root; its working directory is kept when it is
// visible inside, else it becomes "/". Call it while the process has a single thread and before
// anything reads a device path. As root it needs only a new mount namespace; otherwise it creates a
// user namespace too, which the kernel must allow. Throws SetupError when any step fails: the
// process's view of the file system is then half built, and the caller must stop rather than go on.
void enter(const Options &options);

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
