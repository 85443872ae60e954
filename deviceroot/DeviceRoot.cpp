#include "DeviceRoot.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <linux/mount.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace deviceroot {

namespace {

// Where the new root is assembled before it becomes "/". The tmpfs covers the host's /tmp only in
// this process's own mount namespace.
constexpr char stagingPoint[] = "/tmp";
// Inside the root: a pristine view of the host's /usr/bin (its presence marks a device root), the
// device tree that seeds the fixed paths, and the overlays' upper and work folders.
constexpr char hostBinFolder[] = "/.deviceroot/host-bin";
constexpr char treeFolder[] = "/.deviceroot/tree";
constexpr char overlayStates[] = "/.deviceroot/overlays";

const char *const programFolders[] = {"/bin", "/usr/bin"};

const char *const readOnlyHostFolders[] = {"/usr", "/etc", "/dev"};
// Top-level names that merged-/usr systems keep as links into /usr (the dynamic linker lives there).
const char *const usrLinks[] = {"/lib", "/lib32", "/lib64", "/libx32", "/sbin"};

[[noreturn]] void fail(const std::string &step, int error = errno)
{
    throw SetupError(step + ": " + std::strerror(error));
}

std::string describeFd(int fd)
{
    return "/proc/self/fd/" + std::to_string(fd);
}

class Fd
{
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

std::unique_ptr<Fd> openFolder(const std::string &path)
{
    const int fd = ::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        fail("open host folder " + path);
    return std::make_unique<Fd>(fd);
}

void writeProcFile(const std::string &path, const std::string &text)
{
    std::ofstream file(path);
    file << text;
    file.flush();
    if (!file)
        fail("write " + path);
}

void makeFolder(const std::string &path, mode_t mode)
{
    if (::mkdir(path.c_str(), mode) != 0 && errno != EEXIST)
        fail("create folder " + path);
    // mkdir's mode is filtered by the umask; /tmp needs its sticky, world-writable mode as it is.
    if (::chmod(path.c_str(), mode) != 0)
        fail("set mode of " + path);
}

void makeFolders(const std::string &path, mode_t mode = 0755)
{
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        const std::string parent = path.substr(0, slash);
        struct stat info;
        if (::stat(parent.c_str(), &info) != 0)
            makeFolder(parent, 0755);
    }
    struct stat info;
    if (::stat(path.c_str(), &info) != 0)
        makeFolder(path, mode);
}

void mountOrFail(const std::string &source, const std::string &target, const char *type, unsigned long flags,
                 const std::string &data, const std::string &what)
{
    // Binds and remounts ignore the source's and type's text, but the call takes strings all the same.
    const char *sourceText = source.empty() ? "none" : source.c_str();
    if (::mount(sourceText, target.c_str(), type ? type : "none", flags, data.empty() ? nullptr : data.c_str()) != 0)
        fail(what);
}

// A bind mount can only be made read-only by a remount, which must repeat the flags that the kernel
// locks on mounts seen from a user namespace (nosuid, nodev, noexec, atime flags).
unsigned long lockedFlags(const std::string &path)
{
    struct statvfs info;
    if (::statvfs(path.c_str(), &info) != 0)
        fail("inspect mount " + path);
    unsigned long flags = 0;
    const std::pair<unsigned long, unsigned long> map[] = {
        {ST_NOSUID, MS_NOSUID},   {ST_NODEV, MS_NODEV},           {ST_NOEXEC, MS_NOEXEC},
        {ST_NOATIME, MS_NOATIME}, {ST_NODIRATIME, MS_NODIRATIME}, {ST_RELATIME, MS_RELATIME},
    };
    for (const auto &[statFlag, mountFlag] : map)
        if (info.f_flag & statFlag)
            flags |= mountFlag;
    return flags;
}

// Makes a bound tree read-only, its submounts included where the kernel can (mount_setattr, 5.12);
// else only its top mount.
void makeReadOnly(const std::string &target)
{
    struct MountAttributes
    {
        uint64_t set, clear, propagation, userNamespaceFd;
    } attributes{MOUNT_ATTR_RDONLY, 0, 0, 0};
    if (::syscall(SYS_mount_setattr, AT_FDCWD, target.c_str(), AT_RECURSIVE, &attributes, sizeof attributes) == 0)
        return;
    mountOrFail({}, target, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY | lockedFlags(target), {},
                "make " + target + " read-only");
}

// Always recursive: a user namespace may not bind a mount without the mounts below it.
void bindFolder(int sourceFd, const std::string &sourceName, const std::string &target, bool writable)
{
    makeFolders(target);
    mountOrFail(describeFd(sourceFd), target, nullptr, MS_BIND | MS_REC, {}, "bind " + sourceName + " at " + target);
    if (!writable)
        makeReadOnly(target);
}

void removeTree(const std::string &path, dev_t device);

// Removes what a folder holds without crossing into other file systems (a host folder shown
// inside a device folder is a mount point and stays).
void removeContents(const std::string &path, dev_t device)
{
    std::unique_ptr<DIR, int (*)(DIR *)> folder(::opendir(path.c_str()), ::closedir);
    if (!folder)
        fail("open " + path);
    while (const dirent *entry = ::readdir(folder.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            removeTree(path + "/" + name, device);
    }
}

void removeTree(const std::string &path, dev_t device)
{
    struct stat info;
    if (::lstat(path.c_str(), &info) != 0)
        fail("inspect " + path);
    if (info.st_dev != device)
        return;
    if (S_ISDIR(info.st_mode)) {
        ::chmod(path.c_str(), 0700); // overlayfs leaves its work folder unreadable
        removeContents(path, device);
        if (::rmdir(path.c_str()) != 0 && errno != EBUSY && errno != ENOTEMPTY)
            fail("remove " + path);
    } else if (::unlink(path.c_str()) != 0) {
        fail("remove " + path);
    }
}

void emptyFolder(const std::string &path)
{
    struct stat info;
    if (::lstat(path.c_str(), &info) != 0)
        fail("inspect " + path);
    removeContents(path, info.st_dev);
}

bool isFolder(const std::string &path)
{
    struct stat info;
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool isProgramFolder(const std::string &fixedPath)
{
    return std::find(std::begin(programFolders), std::end(programFolders), fixedPath) != std::end(programFolders);
}

std::vector<std::string> fixedPaths()
{
    std::vector<std::string> paths(std::begin(programFolders), std::end(programFolders));
    paths.insert(paths.end(), deviceFolders().begin(), deviceFolders().end());
    return paths;
}

// The overlay's lower folders for a fixed path, topmost first; empty when the path is a plain folder.
std::string lowerFolders(const std::string &root, const std::string &fixedPath)
{
    std::string lowers;
    if (isFolder(root + treeFolder + fixedPath))
        lowers = root + treeFolder + fixedPath;
    if (isProgramFolder(fixedPath))
        lowers += (lowers.empty() ? "" : ":") + root + hostBinFolder;
    return lowers;
}

std::string overlayState(const std::string &root, std::string fixedPath)
{
    std::replace(fixedPath.begin() + 1, fixedPath.end(), '/', '-');
    return root + overlayStates + fixedPath;
}

void mountOverlay(const std::string &root, const std::string &fixedPath, const std::string &lowers)
{
    const std::string state = overlayState(root, fixedPath);
    makeFolders(state + "/upper", fixedPath == "/tmp" ? 01777 : 0755);
    makeFolders(state + "/work");
    const std::string options = "lowerdir=" + lowers + ",upperdir=" + state + "/upper,workdir=" + state + "/work";
    mountOrFail("overlay", root + fixedPath, "overlay", 0, options, "mount the writable overlay at " + fixedPath);
}

void makeFixedPath(const std::string &root, const std::string &fixedPath)
{
    makeFolders(root + fixedPath, fixedPath == "/tmp" ? 01777 : 0755);
    const std::string lowers = lowerFolders(root, fixedPath);
    if (!lowers.empty())
        mountOverlay(root, fixedPath, lowers);
}

void resetFixedPath(const std::string &fixedPath)
{
    const std::string lowers = lowerFolders("", fixedPath);
    if (lowers.empty()) {
        emptyFolder(fixedPath);
        return;
    }
    if (::umount2(fixedPath.c_str(), MNT_DETACH) != 0)
        fail("unmount the overlay at " + fixedPath);
    emptyFolder(overlayState("", fixedPath));
    mountOverlay("", fixedPath, lowers);
}

void checkDeviceTree(const std::string &deviceTree)
{
    if (deviceTree.empty())
        return;
    if (deviceTree[0] != '/')
        throw SetupError("device tree must be an absolute path: '" + deviceTree + "'");
    if (!isFolder(deviceTree))
        throw SetupError("device tree is not a folder: '" + deviceTree + "'");
}

void mirrorUsrLinks(const std::string &root)
{
    for (const char *name : usrLinks) {
        char target[PATH_MAX];
        const ssize_t length = ::readlink(name, target, sizeof target - 1);
        if (length <= 0)
            continue; // absent, or a real folder on a system without merged /usr: not needed here
        target[length] = '\0';
        if (::symlink(target, (root + name).c_str()) != 0)
            fail(std::string("link ") + name);
    }
}

void enterNamespaces()
{
    const uid_t uid = ::geteuid();
    const gid_t gid = ::getegid();
    if (uid == 0) {
        if (::unshare(CLONE_NEWNS) != 0)
            fail("create a mount namespace (unshare CLONE_NEWNS)");
        return;
    }
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
        fail("create a user and mount namespace as an unprivileged user (are user namespaces allowed? see "
             "/proc/sys/user/max_user_namespaces)");
    writeProcFile("/proc/self/setgroups", "deny");
    writeProcFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    writeProcFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

std::string currentFolder()
{
    char buffer[PATH_MAX];
    return ::getcwd(buffer, sizeof buffer) ? buffer : "/";
}

} // namespace

const std::vector<std::string> &deviceFolders()
{
    static const std::vector<std::string> folders = {"/tmp", "/storage", "/Dsp", "/DspCpri", "/sys/class/thermal"};
    return folders;
}

bool isInside()
{
    struct stat info;
    return ::stat(hostBinFolder, &info) == 0 && S_ISDIR(info.st_mode);
}

void enter(const Options &options)
{
    checkDeviceTree(options.deviceTree);
    const std::string workingFolder = currentFolder();
    // Nested roots take the host's /usr/bin from the outer root's pristine copy, not its overlay.
    const std::string hostBin = isInside() ? hostBinFolder : "/usr/bin";

    enterNamespaces();
    mountOrFail({}, "/", nullptr, MS_REC | MS_PRIVATE, {}, "make the mount tree private");

    // Host folders are opened before the staging tmpfs may hide them (a build tree below /tmp).
    std::vector<HostFolder> shown = options.hostFolders;
    if (!options.deviceTree.empty())
        shown.push_back({options.deviceTree, false});
    std::vector<std::unique_ptr<Fd>> shownFds;
    for (const HostFolder &folder : shown) {
        if (folder.path.empty() || folder.path[0] != '/')
            throw SetupError("host folder must be an absolute path: '" + folder.path + "'");
        shownFds.push_back(openFolder(folder.path));
    }
    std::vector<std::unique_ptr<Fd>> hostFds;
    for (const char *folder : readOnlyHostFolders)
        hostFds.push_back(openFolder(folder));
    const auto procFd = openFolder("/proc");
    const auto hostBinFd = openFolder(hostBin);

    const std::string root = stagingPoint;
    mountOrFail("tmpfs", root, "tmpfs", MS_NOSUID, "mode=0755", "mount the root tmpfs");

    for (size_t i = 0; i < std::size(readOnlyHostFolders); ++i)
        bindFolder(hostFds[i]->get(), readOnlyHostFolders[i], root + readOnlyHostFolders[i], false);
    bindFolder(procFd->get(), "/proc", root + "/proc", true);
    mirrorUsrLinks(root);
    bindFolder(hostBinFd->get(), hostBin, root + hostBinFolder, false);
    if (!options.deviceTree.empty())
        bindFolder(shownFds.back()->get(), options.deviceTree, root + treeFolder, false);
    for (const std::string &fixedPath : fixedPaths())
        makeFixedPath(root, fixedPath);
    for (size_t i = 0; i < options.hostFolders.size(); ++i)
        bindFolder(shownFds[i]->get(), shown[i].path, root + shown[i].path, shown[i].writable);

    if (::chdir(root.c_str()) != 0)
        fail("enter the new root");
    if (::syscall(SYS_pivot_root, ".", ".") != 0)
        fail("switch to the new root (pivot_root)");
    // The old root now sits on top of the new one; detaching it leaves no way back to host paths.
    if (::umount2(".", MNT_DETACH) != 0)
        fail("detach the host's root");
    if (::chdir(workingFolder.c_str()) != 0 && ::chdir("/") != 0)
        fail("enter a working folder");
}

void makeReadOnly()
{
    if (!isInside())
        throw SetupError("makeReadOnly: this process is not inside a device root");
    for (const std::string &fixedPath : fixedPaths()) {
        // A plain folder must become a mount of its own before it can be read-only.
        mountOrFail(fixedPath, fixedPath, nullptr, MS_BIND | MS_REC, {}, "bind " + fixedPath + " onto itself");
        makeReadOnly(fixedPath);
    }
}

void reset()
{
    if (!isInside())
        throw SetupError("reset: this process is not inside a device root");
    for (const std::string &fixedPath : fixedPaths())
        resetFixedPath(fixedPath);
}

} // namespace deviceroot
