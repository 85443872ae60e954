#include "FuzzDevice.h"

#include "DeviceRoot.h"

#include <rfSystem_Info.h>

#include <QString>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rfsifuzz {

void writeDeviceFile(const std::string &path, const uint8_t *data, size_t size)
{
    static time_t seconds = 1'500'000'000;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char *>(data), static_cast<std::streamsize>(size));
    const timespec times[2] = {{++seconds, 0}, {seconds, 0}};
    ::utimensat(AT_FDCWD, path.c_str(), times, 0);
}

rfSystemInfo &library()
{
    static rfSystemInfo info;
    return info;
}

} // namespace rfsifuzz

namespace {

void dropQtMessages(QtMsgType, const QMessageLogContext &, const QString &) {}

} // namespace

// The fuzzer runs in its working folder (corpus and crash artifacts below it), which stays visible.
extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    char folder[PATH_MAX];
    deviceroot::Options options;
    options.hostFolders = {{::getcwd(folder, sizeof folder) ? folder : "/", true}};
    try {
        deviceroot::enter(options);
    } catch (const deviceroot::SetupError &error) {
        std::fprintf(stderr, "fuzz target: cannot set up the private device root: %s\n", error.what());
        std::exit(1);
    }
    qInstallMessageHandler(dropQtMessages);
    // The board description's failure lines would flood the fuzzer's output.
    if (!std::freopen("/dev/null", "w", stdout))
        std::exit(1);
    return 0;
}
