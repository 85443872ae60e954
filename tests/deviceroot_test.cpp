// The private device root itself: what the tests rely on when they write at the instrument's paths.
#include "DeviceRoot.h"
#include "DeviceTest.h"

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <fstream>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

using namespace rfsitest;
namespace fs = std::filesystem;

namespace {

bool canCreate(const std::string &path)
{
    const bool created = std::ofstream(path).good();
    if (created)
        fs::remove(path);
    return created;
}

// What a device folder holds besides the way to the build and source trees, which are shown at their
// own paths (a checkout below /tmp shows up inside the device's /tmp).
std::vector<std::string> ownEntries(const std::string &folder)
{
    std::vector<std::string> entries;
    for (const auto &entry : fs::directory_iterator(folder)) {
        const std::string path = entry.path().string() + "/";
        const bool leadsToATree = std::string(RFSI_TEST_SOURCE_DIR "/").rfind(path, 0) == 0 ||
                                  std::string(RFSI_TEST_BINARY_DIR "/").rfind(path, 0) == 0;
        if (!leadsToATree)
            entries.push_back(entry.path().string());
    }
    return entries;
}

} // namespace

class DeviceRootTest : public DeviceTest
{
};

// A reset drops every write and brings back removed programs: the device folders are empty and
// writable again; /bin and /usr/bin show the host's programs and take writes each on its own; the
// host's system folders are read-only, and no other host path is there (/var and /home exist on every
// Debian host).
TEST_F(DeviceRootTest, TheRootShowsOnlyWhatItWasBuiltWithAgainAfterAReset)
{
    ASSERT_TRUE(fs::remove("/usr/bin/true"));
    writeDeviceFile("/bin/getSicutil", "#!/bin/sh\n", 0755);
    EXPECT_FALSE(fs::exists("/usr/bin/getSicutil")) << "/bin and /usr/bin must be separate device folders";
    writeDeviceFile("/storage/deep/folder/file", "x");
    writeDeviceFile("/tmp/SystemInventoryInfo.info", "x");
    writeDeviceFile("/sys/class/thermal/thermal_zone0/temp", "45200\n");

    deviceroot::reset();

    EXPECT_TRUE(fs::exists("/usr/bin/true") && fs::exists("/bin/sh") && fs::exists("/usr/bin/sh"));
    EXPECT_FALSE(fs::exists("/bin/getSicutil"));
    EXPECT_TRUE(fs::exists(RFSI_TEST_BINARY_DIR)) << "reset must leave the shown trees alone";
    for (const std::string &folder : deviceroot::deviceFolders()) {
        ASSERT_TRUE(fs::is_directory(folder)) << folder;
        EXPECT_EQ(ownEntries(folder), std::vector<std::string>()) << folder;
        EXPECT_TRUE(canCreate(folder + "/probe")) << folder;
    }
    EXPECT_EQ(fs::status("/tmp").permissions(), fs::perms::all | fs::perms::sticky_bit) << "/tmp as on any system";
    for (const char *path : {"/usr/probe", "/etc/probe", "/dev/probe"}) {
        EXPECT_FALSE(canCreate(path)) << path;
        EXPECT_EQ(errno, EROFS) << path;
    }
    for (const char *path : {"/var", "/home", "/sys/class/net"})
        EXPECT_FALSE(fs::exists(path)) << path;
}

TEST_F(DeviceRootTest, DeviceTreeSeedsTheFixedPathsWithoutBeingChanged)
{
    // A nested root, in a fresh process, seeded from a tree written in this one.
    writeDeviceFile("/storage/tree/storage/RFHW_Revision.info", "RF_REVISION=2.1/1.0/3.0\n");
    writeDeviceFile("/storage/tree/bin/getSicutil", "#!/bin/sh\necho seeded\n", 0755);
    inFreshProcess([] {
        deviceroot::Options options;
        options.deviceTree = "/storage/tree";
        ASSERT_NO_THROW(deviceroot::enter(options));
        EXPECT_TRUE(fs::exists("/storage/RFHW_Revision.info"));
        EXPECT_TRUE(fs::exists("/bin/getSicutil"));
        EXPECT_TRUE(fs::exists("/bin/sh")) << "a seeded /bin still shows the host's programs";
        fs::remove("/storage/RFHW_Revision.info");
        writeDeviceFile("/bin/extra", "x");
        EXPECT_TRUE(fs::exists("/.deviceroot/tree/storage/RFHW_Revision.info")) << "the tree must stay unchanged";
        EXPECT_FALSE(fs::exists("/.deviceroot/tree/bin/extra"));
        deviceroot::reset();
        EXPECT_TRUE(fs::exists("/storage/RFHW_Revision.info")) << "reset restores the seeded content";
        EXPECT_FALSE(fs::exists("/bin/extra"));
    });
}

#ifndef RFSI_TEST_EMULATED // qemu-user takes no seccomp filter
TEST_F(DeviceRootTest, AKernelWithoutOpenat2RefusesATreeInsteadOfResolvingItsLinksOnTheHost)
{
    writeDeviceFile("/storage/tree/Dsp/name.txt", "1\nimage\n");
    inFreshProcess([] {
        // The kernel as one before Linux 5.6 answers openat2.
        sock_filter noOpenat2[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat2, 0, 1),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        };
        const sock_fprog program{static_cast<unsigned short>(std::size(noOpenat2)), noOpenat2};
        ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
        ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
        deviceroot::Options options;
        options.deviceTree = "/storage/tree";
        try {
            deviceroot::enter(options);
            ADD_FAILURE() << "a tree was shown without openat2";
        } catch (const deviceroot::SetupError &error) {
            EXPECT_NE(std::string(error.what()).find("cannot resolve a device tree's links inside the tree"),
                      std::string::npos)
                << error.what();
        }
    });
}
#endif
