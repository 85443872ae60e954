#include "DeviceRoot.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>

#include <dirent.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/mount.h>
#include <linux/openat2.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
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
// Where the tree's links are rewritten before they are laid over it, and where a link that leads
// nowhere inside the tree leads instead: an empty read-only folder, so it stays missing.
constexpr char treeLinksLayer[] = "/.deviceroot/links";
constexpr char nowhereFolder[] = "/.deviceroot/nowhere";
// Where a link leads that passes through a folder this process may not search: a folder nobody may
// search, so the reader finds it there as it would find it in the tree.
constexpr char unreachableFolder[] = "/.deviceroot/unreachable";

const char *const programFolders[] = {"/bin", "/usr/bin"};

// What runs a confined program of the tree, and the seccomp filter it runs under.
constexpr char sandboxFolder[] = "/.deviceroot/sandbox";
// The host's user a confined program runs as where the root was made by the host's root.
constexpr int confinedUser = 65534;
// Bounds of a confined program: processes of its user, address space, file size, open files, and the
// writable /tmp it gets (the rest of the root it sees read-only).
constexpr char confinedLimits[] = "--nproc=64 --as=536870912 --fsize=16777216 --nofile=256";
constexpr char confinedWritableBytes[] = "16777216";

const char *const readOnlyHostFolders[] = {"/usr", "/etc"};
// The device nodes a program may need; /dev is otherwise empty and read-only, so that no disk or
// other device of the host can be opened from inside.
const char *const deviceNodes[] = {"null", "zero", "full", "random", "urandom", "tty"};
// Below the root's own /proc, what would change the host's kernel: read-only.
const char *const kernelSettings[] = {"sys", "sysrq-trigger", "irq", "bus", "fs"};
// A tree's link to one of these keeps meaning the root's own harmless device, as on the instrument.
const char *const keptDeviceLinks[] = {"/dev/null", "/dev/zero", "/dev/full", "/dev/random", "/dev/urandom"};
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

void makeFolders(const std::string &path, mode_t mode = 0755)
{
    std::error_code error;
    const bool created = std::filesystem::create_directories(path, error);
    if (error)
        fail("create folder " + path, error.value());
    // mkdir's mode is filtered by the umask; /tmp needs its sticky, world-writable mode as it is.
    if (created && ::chmod(path.c_str(), mode) != 0)
        fail("set mode of " + path);
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

// Whether a tree's programs are to run in this root; where not, nothing shown from the tree executes.
bool treeProgramsRun = false;

// What every mount made from a tree carries: no device node opens and no set-user-ID program gains
// anything there, and nothing executes unless the tree's programs are to run.
unsigned long treeMountFlags(bool executable)
{
    return MS_NODEV | MS_NOSUID | (executable ? 0 : MS_NOEXEC);
}

// Makes a bound tree read-only, and `moreFlags` (MS_NODEV, MS_NOSUID, MS_NOEXEC) besides, its
// submounts included where the kernel can (mount_setattr, 5.12); else only its top mount.
void makeReadOnly(const std::string &target, unsigned long moreFlags = 0)
{
    struct MountAttributes
    {
        uint64_t set, clear, propagation, userNamespaceFd;
    } attributes{MOUNT_ATTR_RDONLY, 0, 0, 0};
    const std::pair<unsigned long, uint64_t> map[] = {
        {MS_NODEV, MOUNT_ATTR_NODEV}, {MS_NOSUID, MOUNT_ATTR_NOSUID}, {MS_NOEXEC, MOUNT_ATTR_NOEXEC}};
    for (const auto &[mountFlag, attribute] : map)
        if (moreFlags & mountFlag)
            attributes.set |= attribute;
    if (::syscall(SYS_mount_setattr, AT_FDCWD, target.c_str(), AT_RECURSIVE, &attributes, sizeof attributes) == 0)
        return;
    mountOrFail({}, target, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY | lockedFlags(target) | moreFlags, {},
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

// Calls `visit` with each name in the folder but "." and ".."; false when the folder cannot be opened.
// A folder that cannot be read to its end is a failure, never a shorter list.
template <typename Visit>
bool forEachEntry(const std::string &path, Visit visit)
{
    std::unique_ptr<DIR, int (*)(DIR *)> folder(::opendir(path.c_str()), ::closedir);
    if (!folder)
        return false;
    for (errno = 0; const dirent *entry = ::readdir(folder.get()); errno = 0) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            visit(name);
    }
    if (errno != 0)
        fail("read the folder " + path);
    return true;
}

void removeTree(const std::string &path, dev_t device);

// Removes what a folder holds without crossing into other file systems (a host folder shown
// inside a device folder is a mount point and stays).
void removeContents(const std::string &path, dev_t device)
{
    if (!forEachEntry(path, [&](const std::string &name) { removeTree(path + "/" + name, device); }))
        fail("open " + path);
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
    std::error_code ignored;
    return std::filesystem::is_directory(path, ignored);
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

// Opens `path` below `folderFd` ("/" or "" is the folder itself) as `resolve` lets the kernel resolve it.
int openat2(int folderFd, const std::string &path, uint64_t flags, uint64_t resolve)
{
    open_how how{};
    how.flags = flags | O_CLOEXEC;
    how.resolve = resolve;
    const size_t start = std::min(path.find_first_not_of('/'), path.size());
    const char *name = start == path.size() ? "." : path.c_str() + start;
    // A ".." resolved inside the tree fails with EAGAIN when any rename or mount on the system raced
    // with it (other device roots being made, say): that is no answer about the tree, so it is asked
    // again, and a tree whose links cannot be resolved at all is not shown.
    int fd = -1;
    for (int attempt = 0; attempt < 10000; ++attempt) {
        fd = static_cast<int>(::syscall(SYS_openat2, folderFd, name, &how, sizeof how));
        if (fd >= 0 || errno != EAGAIN)
            break;
        ::sched_yield();
    }
    if (fd < 0 && errno == EAGAIN)
        throw SetupError("the device tree's links cannot be resolved: the system's mounts keep changing");
    if (fd < 0 && errno == ENOSYS)
        throw SetupError("this kernel cannot resolve a device tree's links inside the tree (openat2, Linux 5.6): "
                         "they would lead to the host's files, so the tree is not shown");
    return fd;
}

// Opens `path` inside the tree the way the instrument would see it, with the tree as "/": every link,
// absolute or relative, resolves inside the tree and never above it. -1 when it leads nowhere.
int openInTree(int treeFd, const std::string &path, int flags)
{
    return openat2(treeFd, path, static_cast<uint64_t>(flags) | O_PATH, RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS);
}

// The path the kernel gives an open file, on the host.
std::string pathOf(int fd)
{
    char path[PATH_MAX];
    const ssize_t length = ::readlink(describeFd(fd).c_str(), path, sizeof path - 1);
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

// Where `path` leads in the tree (at `treePath` on the host), as a path below the tree without any
// link in it ("" for the tree itself); nothing when it leads nowhere.
std::optional<std::string> resolveInTree(int treeFd, const std::string &treePath, const std::string &path,
                                         int flags = 0)
{
    const Fd node(openInTree(treeFd, path, flags));
    if (node.get() < 0)
        return std::nullopt;
    const std::string resolved = pathOf(node.get());
    const std::string prefix = treePath == "/" ? std::string() : treePath;
    if (resolved == treePath)
        return std::string();
    if (resolved.rfind(prefix + "/", 0) != 0)
        return std::nullopt;
    return resolved.substr(prefix.size());
}

// Whether this process may search the tree's `folder` (may reach what is in it by name).
bool searchable(int treeFd, const std::string &folder)
{
    const int fd = openat2(treeFd, folder + "/.", O_PATH | O_DIRECTORY, RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS);
    if (fd >= 0)
        ::close(fd);
    return fd >= 0 || errno != EACCES;
}

// Calls `visit` with the path below the tree of every link in it, however deep. A folder that cannot
// be read to its end fails: a link left out would lead to the host. But a folder this process may
// neither read nor search is passed over: the reader, who has no more rights, cannot enter it either.
// Other file systems mounted inside the tree are not part of it (the overlay does not show them either).
template <typename Visit>
void forEachTreeLink(int treeFd, Visit visit)
{
    struct stat treeInfo;
    if (::fstat(treeFd, &treeInfo) != 0)
        fail("inspect the device tree");
    std::vector<std::string> folders{""};
    while (!folders.empty()) {
        const std::string folder = std::move(folders.back());
        folders.pop_back();
        const int fd = openat2(treeFd, folder, O_RDONLY | O_DIRECTORY, RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS);
        std::unique_ptr<DIR, int (*)(DIR *)> listing(fd < 0 ? nullptr : ::fdopendir(fd), ::closedir);
        if (!listing) {
            const int error = errno;
            if (fd >= 0)
                ::close(fd);
            if (error == EACCES && !searchable(treeFd, folder))
                continue;
            fail("read the device tree's folder " + (folder.empty() ? "/" : folder), error);
        }
        for (errno = 0; const dirent *entry = ::readdir(listing.get()); errno = 0) {
            const std::string name = entry->d_name, path = folder + "/" + name;
            struct stat info;
            if (name == "." || name == "..")
                continue;
            if (::fstatat(::dirfd(listing.get()), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
                fail("inspect the device tree's " + path);
            if (S_ISDIR(info.st_mode) && info.st_dev == treeInfo.st_dev)
                folders.push_back(path);
            else if (S_ISLNK(info.st_mode))
                visit(path, info);
        }
        if (errno != 0)
            fail("read the device tree's folder " + (folder.empty() ? "/" : folder));
    }
}

// Where a link of the tree leads inside the root: to the node it leads to with the tree as "/", seen
// in the tree's view; to the root's own harmless device; or to a path that stays missing.
std::string retargeted(int treeFd, const std::string &treePath, const std::string &link)
{
    char text[PATH_MAX];
    const ssize_t length = ::readlinkat(treeFd, link.c_str() + 1, text, sizeof text - 1);
    const std::string target = length > 0 ? std::string(text, static_cast<size_t>(length)) : std::string();
    if (std::find(std::begin(keptDeviceLinks), std::end(keptDeviceLinks), target) != std::end(keptDeviceLinks))
        return target;
    errno = 0;
    const std::optional<std::string> resolved = resolveInTree(treeFd, treePath, link);
    return resolved ? treeFolder + *resolved : (errno == EACCES ? unreachableFolder : nowhereFolder) + link;
}

// Makes the folders of `path` below the layer, each with the mode and owner of the tree's folder it
// stands for (the overlay shows the topmost layer's).
void makeLayerFolders(int treeFd, const std::string &layer, const std::string &path)
{
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        const std::string folder = path.substr(0, slash);
        struct stat info;
        if (::mkdir((layer + folder).c_str(), 0700) != 0) {
            if (errno == EEXIST)
                continue;
            fail("create the layer's folder " + folder);
        }
        if (::fstatat(treeFd, folder.c_str() + 1, &info, AT_SYMLINK_NOFOLLOW) != 0)
            fail("inspect the device tree's " + folder);
        [[maybe_unused]] const int owned = ::lchown((layer + folder).c_str(), info.st_uid, info.st_gid);
        if (::chmod((layer + folder).c_str(), info.st_mode & 07777) != 0)
            fail("set the mode of the layer's folder " + folder);
    }
}

// Shows the tree read-only at treeFolder, every link of it rewritten to lead where it leads on the
// instrument (retargeted()): a layer of rewritten links lies over the tree, which stays unchanged.
void mountTreeView(const std::string &root, int treeFd)
{
    const std::string treePath = pathOf(treeFd), layer = root + treeLinksLayer;
    makeFolders(layer);
    mountOrFail("tmpfs", layer, "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=0755",
                "mount the layer of the device tree's links");
    forEachTreeLink(treeFd, [&](const std::string &link, const struct stat &info) {
        makeLayerFolders(treeFd, layer, link);
        const std::string path = layer + link;
        if (::symlink(retargeted(treeFd, treePath, link).c_str(), path.c_str()) != 0)
            fail("lead the device tree's link " + link + " into the tree");
        [[maybe_unused]] const int owned = ::lchown(path.c_str(), info.st_uid, info.st_gid);
    });
    const Fd layerFd(::open(layer.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (layerFd.get() < 0)
        fail("open the layer of the device tree's links");
    makeFolders(root + treeFolder);
    mountOrFail("overlay", root + treeFolder, "overlay", MS_RDONLY | treeMountFlags(treeProgramsRun),
                "lowerdir=" + describeFd(layerFd.get()) + ":" + describeFd(treeFd), "show the device tree");
    // The overlay holds the layer on its own; nothing inside the root may change it afterwards.
    if (::umount2(layer.c_str(), MNT_DETACH) != 0)
        fail("hide the layer of the device tree's links");
    makeFolders(root + nowhereFolder);
    mountOrFail("tmpfs", root + nowhereFolder, "tmpfs", MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=0555",
                "mount the folder that links leading nowhere lead to");
    makeFolders(root + unreachableFolder);
    mountOrFail("tmpfs", root + unreachableFolder, "tmpfs", MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=0000",
                "mount the folder that links through folders that may not be searched lead to");
}

// Each seeded fixed path's folder in the tree, links resolved (a path below the tree): reset() mounts
// them again.
std::map<std::string, std::string> seededFolders;

// Opens a folder of the tree's view by its path below the tree, which holds no link.
std::unique_ptr<Fd> openTreeViewFolder(const std::string &root, const std::string &pathInTree)
{
    const Fd view(::open((root + treeFolder).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const int fd = view.get() < 0
                       ? -1
                       : openat2(view.get(), pathInTree, O_PATH | O_DIRECTORY, RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS);
    if (fd < 0)
        fail("open the device tree's folder " + pathInTree);
    return std::make_unique<Fd>(fd);
}

// The overlay's lower folders for a fixed path, topmost first, as open descriptors; none when the path
// is a plain folder.
std::vector<std::unique_ptr<Fd>> lowerFolders(const std::string &root, const std::string &fixedPath)
{
    std::vector<std::unique_ptr<Fd>> lowers;
    const auto seed = seededFolders.find(fixedPath);
    if (seed != seededFolders.end())
        lowers.push_back(openTreeViewFolder(root, seed->second));
    if (isProgramFolder(fixedPath))
        lowers.push_back(openFolder(root + hostBinFolder));
    return lowers;
}

// The overlay's option text names each folder by its descriptor: the kernel splits the text at ':'
// and ',', which a tree's own folder names may hold.
std::string lowerDirOption(const std::vector<std::unique_ptr<Fd>> &lowers)
{
    std::string option = "lowerdir=";
    for (const auto &lower : lowers)
        option += (&lower == &lowers.front() ? "" : ":") + describeFd(lower->get());
    return option;
}

std::string overlayState(const std::string &root, std::string fixedPath)
{
    std::replace(fixedPath.begin() + 1, fixedPath.end(), '/', '-');
    return root + overlayStates + fixedPath;
}

// /bin and /usr/bin hold the host's programs as well, which must run; the other fixed paths run
// nothing unless the tree's programs are to run.
void mountOverlay(const std::string &root, const std::string &fixedPath, const std::vector<std::unique_ptr<Fd>> &lowers)
{
    const std::string state = overlayState(root, fixedPath);
    makeFolders(state + "/upper", fixedPath == "/tmp" ? 01777 : 0755);
    makeFolders(state + "/work");
    const std::string options = lowerDirOption(lowers) + ",upperdir=" + state + "/upper,workdir=" + state + "/work";
    mountOrFail("overlay", root + fixedPath, "overlay", treeMountFlags(isProgramFolder(fixedPath) || treeProgramsRun),
                options, "mount the writable overlay at " + fixedPath);
}

void makeFixedPath(const std::string &root, const std::string &fixedPath)
{
    makeFolders(root + fixedPath, fixedPath == "/tmp" ? 01777 : 0755);
    const auto lowers = lowerFolders(root, fixedPath);
    if (!lowers.empty())
        mountOverlay(root, fixedPath, lowers);
}

void resetFixedPath(const std::string &fixedPath)
{
    const auto lowers = lowerFolders("", fixedPath);
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
        throw SetupError("the device tree must be given as an absolute path: '" + deviceTree + "'");
    struct stat info;
    if (::stat(deviceTree.c_str(), &info) != 0)
        throw SetupError("the device tree " + deviceTree + " cannot be found: " + std::strerror(errno));
    if (!S_ISDIR(info.st_mode))
        throw SetupError("the device tree " + deviceTree + " is not a folder");
    if (::access(deviceTree.c_str(), R_OK | X_OK) != 0)
        throw SetupError("the device tree " + deviceTree + " cannot be read: " + std::strerror(errno));
}

// A fixed path seeded from the tree, with the failure named by the tree's folder.
void makeSeededFixedPath(const std::string &root, const std::string &tree, const std::string &fixedPath)
{
    try {
        makeFixedPath(root, fixedPath);
    } catch (const SetupError &error) {
        if (seededFolders.count(fixedPath) == 0)
            throw;
        throw SetupError("the device tree's folder " + tree + fixedPath + " cannot be shown at " + fixedPath + " (" +
                         error.what() + ")");
    }
}

// Shows the tree's other top-level folders read-only at their own paths, so that a link into them
// ("/opt/sic/getSicutil") finds what it finds on the instrument. What the root already has stays.
void showTreeFolders(const std::string &root, int treeFd)
{
    const std::string treePath = pathOf(treeFd);
    forEachEntry(root + treeFolder, [&](const std::string &entry) {
        const std::string name = "/" + entry;
        struct stat info;
        if (::lstat((root + name).c_str(), &info) == 0)
            return;
        const std::optional<std::string> folder = resolveInTree(treeFd, treePath, name, O_DIRECTORY);
        if (!folder)
            return;
        const auto seed = openTreeViewFolder(root, *folder);
        makeFolders(root + name);
        mountOrFail(describeFd(seed->get()), root + name, nullptr, MS_BIND | MS_REC, {},
                    "show the device tree's folder " + name);
        makeReadOnly(root + name, treeMountFlags(treeProgramsRun));
    });
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
        if (::unshare(CLONE_NEWNS | CLONE_NEWPID) != 0)
            fail("create a mount and PID namespace (unshare)");
        return;
    }
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWPID) != 0)
        fail("create a user, mount and PID namespace as an unprivileged user (are user namespaces allowed? see "
             "/proc/sys/user/max_user_namespaces)");
    // Where the tree's programs run, the user stays who they are inside: bubblewrap, which confines
    // those programs, takes a root without capabilities for one with them.
    const std::string insideUid = treeProgramsRun ? std::to_string(uid) : "0";
    const std::string insideGid = treeProgramsRun ? std::to_string(gid) : "0";
    writeProcFile("/proc/self/setgroups", "deny");
    writeProcFile("/proc/self/uid_map", insideUid + " " + std::to_string(uid) + " 1");
    writeProcFile("/proc/self/gid_map", insideGid + " " + std::to_string(gid) + " 1");
}

volatile sig_atomic_t signalTarget = 0;
void forwardSignal(int signal)
{
    if (signalTarget > 0)
        ::kill(signalTarget, signal);
}

// Waits for `child` while passing on the signals a terminal or a service manager sends, reaping every
// other process that ends meanwhile (the namespace's orphans come to its first process), and exits
// as the child did.
[[noreturn]] void exitWith(pid_t child)
{
    // The child holds whatever it needs; here a descriptor would only be a way in through /proc.
    ::syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, 0);
    signalTarget = child;
    struct sigaction forward
    {
    };
    forward.sa_handler = forwardSignal;
    for (int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2})
        ::sigaction(signal, &forward, nullptr);
    for (;;) {
        int status = 0;
        const pid_t ended = ::waitpid(-1, &status, 0);
        if (ended == child)
            ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
        if (ended < 0 && errno == ECHILD)
            ::_exit(127);
    }
}

// Goes on in a child process; this one waits for it and exits as it does. The child dies with it.
void continueInChild(const char *why)
{
    const pid_t child = ::fork();
    if (child < 0)
        fail(why);
    if (child > 0)
        exitWith(child);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
}

// The root's own /proc: it shows only the processes inside, so that no /proc/<pid>/root, cwd or fd
// leads to the host; what would change the host's kernel is read-only.
void mountOwnProc(const std::string &root)
{
    makeFolders(root + "/proc");
    mountOrFail("proc", root + "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, {}, "mount the root's own /proc");
    for (const char *name : kernelSettings) {
        const std::string path = root + "/proc/" + name;
        struct stat info;
        if (::stat(path.c_str(), &info) != 0)
            continue;
        mountOrFail(path, path, nullptr, MS_BIND | MS_REC, {}, "bind " + path + " onto itself");
        makeReadOnly(path);
    }
}

// An empty, read-only /dev with the few harmless device nodes of the host and the usual links.
void mountOwnDev(const std::string &root)
{
    const std::string dev = root + "/dev";
    makeFolders(dev);
    mountOrFail("tmpfs", dev, "tmpfs", MS_NOSUID | MS_NOEXEC, "mode=0755", "mount the root's own /dev");
    for (const char *name : deviceNodes) {
        const std::string host = std::string("/dev/") + name, node = dev + "/" + name;
        if (::access(host.c_str(), F_OK) != 0)
            continue;
        const Fd created(::open(node.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
        if (created.get() < 0)
            fail("create " + node);
        mountOrFail(host, node, nullptr, MS_BIND, {}, "show the device " + host);
    }
    const std::pair<const char *, const char *> links[] = {{"fd", "/proc/self/fd"},
                                                           {"stdin", "/proc/self/fd/0"},
                                                           {"stdout", "/proc/self/fd/1"},
                                                           {"stderr", "/proc/self/fd/2"}};
    for (const auto &[name, target] : links)
        if (::symlink(target, (dev + "/" + name).c_str()) != 0)
            fail("link " + dev + "/" + name);
    mountOrFail({}, dev, nullptr, MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NOEXEC, "mode=0755", "make /dev read-only");
}

// /sys holds only the thermal zones' folder, which stays writable; the rest of it is read-only.
void lockSys(const std::string &root)
{
    const std::string sys = root + "/sys", thermal = root + "/sys/class/thermal";
    mountOrFail(thermal, thermal, nullptr, MS_BIND | MS_REC, {}, "bind /sys/class/thermal onto itself");
    mountOrFail(sys, sys, nullptr, MS_BIND | MS_REC, {}, "bind /sys onto itself");
    mountOrFail({}, sys, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY | lockedFlags(sys), {}, "make /sys read-only");
}

// Builds the root and makes it this process's "/". Every descriptor of a host folder it opens is
// closed when it returns: a descriptor left open would lead back to the host through /proc/<pid>/fd.
void buildRoot(const Options &options, const std::string &hostBin)
{
    // Host folders are opened before the staging tmpfs may hide them (a build tree below /tmp).
    std::vector<HostFolder> shown = options.hostFolders;
    if (!options.deviceTree.empty())
        shown.push_back({options.deviceTree, false});
    std::vector<std::unique_ptr<Fd>> shownFds;
    for (const HostFolder &folder : shown) {
        if (folder.path.empty() || folder.path[0] != '/')
            throw SetupError("a folder to show must be given as an absolute path: '" + folder.path + "'");
        if (!isFolder(folder.path))
            throw SetupError("the folder to show " + folder.path + " is not a folder");
        shownFds.push_back(openFolder(folder.path));
    }
    std::vector<std::unique_ptr<Fd>> hostFds;
    for (const char *folder : readOnlyHostFolders)
        hostFds.push_back(openFolder(folder));
    const auto hostBinFd = openFolder(hostBin);

    const std::string root = stagingPoint;
    mountOrFail("tmpfs", root, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755", "mount the root tmpfs");

    for (size_t i = 0; i < std::size(readOnlyHostFolders); ++i)
        bindFolder(hostFds[i]->get(), readOnlyHostFolders[i], root + readOnlyHostFolders[i], false);
    mountOwnDev(root);
    mountOwnProc(root);
    mirrorUsrLinks(root);
    bindFolder(hostBinFd->get(), hostBin, root + hostBinFolder, false);
    seededFolders.clear();
    if (!options.deviceTree.empty()) {
        const int treeFd = shownFds.back()->get();
        const std::string treePath = pathOf(treeFd);
        mountTreeView(root, treeFd);
        for (const std::string &fixedPath : fixedPaths())
            if (const auto folder = resolveInTree(treeFd, treePath, fixedPath, O_DIRECTORY))
                seededFolders[fixedPath] = *folder;
    }
    for (const std::string &fixedPath : fixedPaths())
        makeSeededFixedPath(root, options.deviceTree, fixedPath);
    lockSys(root);
    for (size_t i = 0; i < options.hostFolders.size(); ++i)
        bindFolder(shownFds[i]->get(), shown[i].path, root + shown[i].path, shown[i].writable);
    if (!options.deviceTree.empty())
        showTreeFolders(root, shownFds.back()->get());

    if (::chdir(root.c_str()) != 0)
        fail("enter the new root");
    if (::syscall(SYS_pivot_root, ".", ".") != 0)
        fail("switch to the new root (pivot_root)");
    // The old root now sits on top of the new one; detaching it leaves no way back to host paths.
    if (::umount2(".", MNT_DETACH) != 0)
        fail("detach the host's root");
}

// Whether this process is the host's root, not the root of a user namespace made for another user.
bool madeByHostRoot()
{
    std::ifstream map("/proc/self/uid_map");
    unsigned long long inside = 1, outside = 1, count = 0; // the whole 32-bit range, also on 32-bit targets
    return map >> inside >> outside >> count && inside == 0 && outside == 0 && count == 4294967295ULL;
}

// The seccomp filter of a confined program, as BPF for bubblewrap: what could reach the terminal, other
// processes, the kernel's keys and programs, or the mounts and namespaces is refused (EPERM). For the
// native architecture and those a program may run as under emulation.
void writeSyscallFilter(const std::string &path)
{
    const std::unique_ptr<void, void (*)(scmp_filter_ctx)> filter(seccomp_init(SCMP_ACT_ALLOW), seccomp_release);
    if (!filter)
        throw SetupError("make the seccomp filter of the tree's programs");
    for (uint32_t arch : std::initializer_list<uint32_t>{SCMP_ARCH_X86_64, SCMP_ARCH_X86, SCMP_ARCH_X32,
                                                         SCMP_ARCH_AARCH64, SCMP_ARCH_ARM})
        seccomp_arch_add(filter.get(), arch); // the native one is there already
    const scmp_filter_ctx context = filter.get();
    const auto refuse = [context](const char *name, unsigned count = 0, scmp_arg_cmp comparison = {}) {
        const int call = seccomp_syscall_resolve_name(name);
        if (call != __NR_SCMP_ERROR)
            seccomp_rule_add(context, SCMP_ACT_ERRNO(EPERM), call, count, comparison);
    };
    for (const char *name : {"ptrace",       "process_vm_readv", "process_vm_writev",
                             "keyctl",       "add_key",          "request_key",
                             "bpf",          "userfaultfd",      "perf_event_open",
                             "mount",        "umount",           "umount2",
                             "pivot_root",   "move_mount",       "open_tree",
                             "fsopen",       "fsconfig",         "fsmount",
                             "fspick",       "mount_setattr",    "setns",
                             "kexec_load",   "kexec_file_load",  "init_module",
                             "finit_module", "delete_module",    "acct",
                             "swapon",       "swapoff",          "reboot"})
        refuse(name);
    refuse("ioctl", 1, {1, SCMP_CMP_MASKED_EQ, 0xffffffffU, TIOCSTI});
    refuse("ioctl", 1, {1, SCMP_CMP_MASKED_EQ, 0xffffffffU, TIOCLINUX});
    refuse("unshare", 1, {0, SCMP_CMP_MASKED_EQ, CLONE_NEWUSER, CLONE_NEWUSER});
    refuse("clone", 1, {0, SCMP_CMP_MASKED_EQ, CLONE_NEWUSER, CLONE_NEWUSER});
    // clone3 passes its flags in memory, which a filter cannot read: the C library falls back to clone.
    seccomp_rule_add(context, SCMP_ACT_ERRNO(ENOSYS), seccomp_syscall_resolve_name("clone3"), 0);
    const Fd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (file.get() < 0 || seccomp_export_bpf(context, file.get()) != 0)
        throw SetupError("write the seccomp filter of the tree's programs");
}

std::string shellQuoted(const std::string &text)
{
    std::string quoted = "'";
    for (char character : text)
        quoted += character == '\'' ? std::string("'\\''") : std::string(1, character);
    return quoted + "'";
}

// The program that stands at a confined program's path: the host's own tools (from the root's pristine
// copy of the host's /usr/bin) start `program` as another user where the host's root made the root,
// with limits, and bubblewrap runs it in namespaces of its own (user, PID, network, IPC, UTS, cgroup,
// mount) with no terminal, no capability, an empty environment but PATH and LANG, the root read-only
// but a small /tmp, the seccomp filter, and no way to outlive the process it was started by.
std::string launcherScript(const std::string &program)
{
    const std::string bin = std::string(hostBinFolder) + "/";
    const std::string user = madeByHostRoot() ? "--reuid=" + std::to_string(confinedUser) +
                                                    " --regid=" + std::to_string(confinedUser) +
                                                    " --clear-groups --bounding-set=-all "
                                              : std::string();
    return "#!" + bin + "sh\nexec " + bin + "prlimit " + confinedLimits + " -- " + bin + "setpriv " + user +
           "--inh-caps=-all --no-new-privs -- " + bin +
           "bwrap --unshare-all --unshare-user --new-session --die-with-parent --clearenv "
           "--setenv PATH /usr/bin:/bin --setenv LANG C.UTF-8 --ro-bind / / --dev /dev --remount-ro /dev --tmpfs /proc "
           "--remount-ro /proc --size " +
           confinedWritableBytes + " --tmpfs /tmp --seccomp 9 -- " + shellQuoted(program) + " \"$@\" 9<" +
           sandboxFolder + "/filter\n";
}

void writeExecutable(const std::string &path, const std::string &content)
{
    const Fd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755));
    if (file.get() < 0 || ::write(file.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()))
        fail("write " + path);
}

// Runs the launcher of a harmless program once: where this machine cannot confine a program (no
// bubblewrap, no user namespaces, no seccomp), none of the tree's programs may run.
void tryConfinement()
{
    const std::string probe = std::string(sandboxFolder) + "/probe";
    writeExecutable(probe, launcherScript(std::string(hostBinFolder) + "/true"));
    const pid_t child = ::fork();
    if (child == 0) {
        try {
            dropPrivileges(true); // as the process that will start the tree's programs
        } catch (const SetupError &) {
            ::_exit(126);
        }
        const int null = ::open("/dev/null", O_RDWR);
        for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
            ::dup2(null, fd);
        ::execl(probe.c_str(), probe.c_str(), static_cast<char *>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    while (child > 0 && ::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (child < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw SetupError("this machine cannot confine the tree's programs (bubblewrap with user namespaces and "
                         "seccomp, util-linux's setpriv and prlimit are needed), so none of them may run");
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
    std::error_code noFolder;
    const std::string workingFolder = std::filesystem::current_path(noFolder).string();
    // Nested roots take the host's /usr/bin from the outer root's pristine copy, not its overlay.
    const std::string hostBin = isInside() ? hostBinFolder : "/usr/bin";
    treeProgramsRun = options.treeProgramsRun;

    enterNamespaces();
    // The new PID namespace starts with this process's next child. This process stays outside and
    // waits; its child, the namespace's first process, sets up the root and then waits as its init.
    continueInChild("start the first process of the PID namespace");
    mountOrFail({}, "/", nullptr, MS_REC | MS_PRIVATE, {}, "make the mount tree private");
    buildRoot(options, hostBin);
    // The first process stays as the namespace's init: it reaps orphans and ends the namespace
    // (every process in it) when the caller's process ends.
    continueInChild("start the caller's process in the PID namespace");
    if (::chdir(workingFolder.c_str()) != 0 && ::chdir("/") != 0)
        fail("enter a working folder");
}

bool treeHolds(const std::string &deviceTree, const std::string &path)
{
    const Fd tree(::open(deviceTree.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const Fd node(tree.get() < 0 ? -1 : openInTree(tree.get(), path, O_NOFOLLOW));
    return node.get() >= 0;
}

void dropPrivileges(bool keepForConfinedPrograms)
{
    // A confined program is started as another user (setuid, setgid, the bounding set dropped) and
    // ended at its time limit (kill): only where the root's maker was the host's root.
    const int kept[] = {CAP_SETUID, CAP_SETGID, CAP_SETPCAP, CAP_KILL};
    const bool keep = keepForConfinedPrograms && madeByHostRoot();
    for (int capability = 0; capability <= CAP_LAST_CAP; ++capability)
        if (!keep || std::find(std::begin(kept), std::end(kept), capability) == std::end(kept))
            ::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
    ::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct capabilities[_LINUX_CAPABILITY_U32S_3] = {};
    for (int capability : kept) {
        if (!keep)
            break;
        capabilities[capability / 32].effective |= 1U << (capability % 32);
        capabilities[capability / 32].permitted |= 1U << (capability % 32);
    }
    if (::syscall(SYS_capset, &header, capabilities) != 0)
        fail("drop the capabilities");
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        fail("forbid new privileges");
    // A program of the tree runs as the same user without capabilities, as this process now does: only
    // this keeps it out of this process's memory and descriptors in /proc (a descriptor of a host
    // folder would lead it out of the root). An exec makes the process dumpable again.
    if (::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0)
        fail("keep this process out of reach of the tree's programs");
}

void confineTreePrograms(const std::vector<std::string> &paths)
{
    if (!isInside())
        throw SetupError("confineTreePrograms: this process is not inside a device root");
    makeFolders(sandboxFolder);
    mountOrFail("tmpfs", sandboxFolder, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755",
                "mount " + std::string(sandboxFolder));
    writeSyscallFilter(std::string(sandboxFolder) + "/filter");
    tryConfinement();
    for (const std::string &path : paths) {
        struct stat info;
        if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
            continue; // nothing there that could run
        // The tree's own program, seen through the tree's view, where it cannot be replaced.
        const std::string folder = path.substr(0, path.rfind('/'));
        const auto seed = seededFolders.find(folder);
        std::error_code error;
        const std::filesystem::path program = std::filesystem::canonical(
            seed == seededFolders.end() ? path : treeFolder + seed->second + path.substr(folder.size()), error);
        if (error || program.string().rfind(std::string(treeFolder) + "/", 0) != 0)
            throw SetupError("the tree's program " + path + " cannot be confined: it is not the tree's");
        if (::unlink(path.c_str()) != 0)
            fail("replace " + path + " by its launcher");
        writeExecutable(path, launcherScript(program.string()));
    }
    makeReadOnly(sandboxFolder);
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
