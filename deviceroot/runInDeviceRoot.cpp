// rfsi-device-root: runs a program inside a private device root, seeded from a device tree or
// replaying a capture made by `rfsysinfo --capture` (its files and its identity tools' answers).
//   rfsi-device-root [--tree DIR|CAPTURE] [--show DIR]... [--show-writable DIR]... -- PROGRAM [ARGUMENT]...
// The program runs without any capability: whatever a copied tree holds cannot undo the root's
// read-only mounts or reach the host's devices.
#include "DeviceRoot.h"
#include "read/CaptureArchive.h"

#include <QFile>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

#include <getopt.h>
#include <unistd.h>

namespace {

constexpr int usageError = 2;
constexpr int setupError = 3;

std::string absolutePath(const char *path)
{
    std::error_code missing; // enter() names the path that does not exist
    const std::filesystem::path resolved = std::filesystem::canonical(path, missing);
    return missing ? path : resolved.string();
}

int usage(const char *program)
{
    std::fprintf(stderr,
                 "usage: %s [--tree DIR|CAPTURE] [--show DIR]... [--show-writable DIR]... -- PROGRAM [ARGUMENT]...\n",
                 program);
    return usageError;
}

} // namespace

int main(int argc, char **argv)
{
    const option longOptions[] = {
        {"tree", required_argument, nullptr, 't'},
        {"show", required_argument, nullptr, 's'},
        {"show-writable", required_argument, nullptr, 'w'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    deviceroot::Options options;
    options.treeProgramsRun = true;
    for (int choice; (choice = ::getopt_long(argc, argv, "+t:s:w:h", longOptions, nullptr)) != -1;) {
        switch (choice) {
        case 't':
            options.deviceTree = absolutePath(optarg);
            break;
        case 's':
        case 'w':
            options.hostFolders.push_back({absolutePath(optarg), choice == 'w'});
            break;
        default:
            return usage(argv[0]);
        }
    }
    if (optind >= argc)
        return usage(argv[0]);

    std::optional<DeviceState> capture;
    if (!options.deviceTree.empty()) {
        bool isFolder = false;
        QString error;
        capture = readCaptureAt(QFile::decodeName(options.deviceTree.c_str()), isFolder, error);
        if (!capture && !isFolder) {
            std::fprintf(stderr, "%s: %s\n", argv[0], qPrintable(error));
            return setupError;
        }
        if (capture)
            options.deviceTree.clear();
    }
    try {
        deviceroot::enter(options);
        QString error;
        if (capture && !applyDeviceState(*capture, error))
            throw deviceroot::SetupError("cannot replay the capture: " + error.toStdString());
        deviceroot::dropPrivileges();
    } catch (const deviceroot::SetupError &error) {
        std::fprintf(stderr, "%s: cannot set up the private device root: %s\n", argv[0], error.what());
        return setupError;
    }
    ::execvp(argv[optind], argv + optind);
    std::fprintf(stderr, "%s: cannot run %s inside the device root: %s\n", argv[0], argv[optind], std::strerror(errno));
    return 127;
}
