// rfsi-device-root: runs a program inside a private device root, seeded from a device tree or
// replaying a capture made by `rfsysinfo --capture` (its files and its identity tools' answers).
//   rfsi-device-root [--tree DIR|CAPTURE] [--show DIR]... [--show-writable DIR]... -- PROGRAM [ARGUMENT]...
// PROGRAM is the host's, found on the host's search path before the root hides the host (a script
// with its interpreter): never a program of the tree that happens to have the same name. It runs
// without any capability, so that whatever a copied tree holds cannot undo the root's read-only
// mounts or reach the host's devices, and in a session of its own: nothing it starts can push
// keystrokes into the terminal that started it.
#include "CaptureArchive.h"
#include "DeviceRoot.h"

#include <QFile>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
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

bool isRegularFile(int fd)
{
    struct stat info;
    return fd >= 0 && ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
}

// The host's program `name` (a path, or a name looked up in PATH as a shell would), opened; -1 with
// errno when there is none.
int openHostProgram(const std::string &name)
{
    if (name.find('/') != std::string::npos)
        return ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    const char *searchPath = std::getenv("PATH");
    std::string folders = searchPath && *searchPath ? searchPath : "/usr/local/bin:/usr/bin:/bin";
    for (size_t start = 0; start <= folders.size();) {
        const size_t end = std::min(folders.find(':', start), folders.size());
        const std::string folder = end == start ? "." : folders.substr(start, end - start);
        const std::string candidate = folder + "/" + name;
        start = end + 1;
        if (::access(candidate.c_str(), X_OK) != 0)
            continue;
        const int fd = ::open(candidate.c_str(), O_RDONLY | O_CLOEXEC);
        if (isRegularFile(fd))
            return fd;
        if (fd >= 0)
            ::close(fd);
    }
    errno = ENOENT;
    return -1;
}

// What to execute inside the root, opened on the host, and the arguments to give it.
struct HostProgram
{
    int fd = -1;
    std::vector<std::string> arguments;
};

// The host's program for `argv`. A script runs through its interpreter, also the host's (inside
// the root "#!/bin/sh" would name the tree's), which reads the script through /dev/fd.
std::optional<HostProgram> hostProgram(char **argv)
{
    HostProgram program{openHostProgram(argv[0]), {}};
    if (program.fd < 0)
        return std::nullopt;
    char head[256] = {};
    const ssize_t length = ::pread(program.fd, head, sizeof head - 1, 0);
    if (length > 2 && head[0] == '#' && head[1] == '!') {
        std::string line(head + 2, static_cast<size_t>(length - 2));
        line = line.substr(0, line.find('\n'));
        const size_t start = line.find_first_not_of(" \t"), end = line.find_first_of(" \t", start);
        const std::string interpreter = start == std::string::npos ? "" : line.substr(start, end - start);
        const size_t argument = end == std::string::npos ? end : line.find_first_not_of(" \t", end);
        const int interpreterFd = ::open(interpreter.c_str(), O_RDONLY | O_CLOEXEC);
        char magic[2] = {};
        if (!isRegularFile(interpreterFd) ||
            (::pread(interpreterFd, magic, 2, 0) == 2 && magic[0] == '#' && magic[1] == '!')) {
            errno = ENOEXEC;
            return std::nullopt;
        }
        ::fcntl(program.fd, F_SETFD, 0); // the interpreter opens the script by its descriptor
        program.arguments.push_back(interpreter);
        if (argument != std::string::npos)
            program.arguments.push_back(line.substr(argument, line.find_last_not_of(" \t\r") + 1 - argument));
        program.arguments.push_back("/dev/fd/" + std::to_string(program.fd));
        program.fd = interpreterFd;
    } else {
        program.arguments.push_back(argv[0]);
    }
    for (char **argument = argv + 1; *argument; ++argument)
        program.arguments.push_back(*argument);
    return program;
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

    const std::optional<HostProgram> program = hostProgram(argv + optind);
    if (!program) {
        std::fprintf(stderr, "%s: cannot run %s: %s\n", argv[0], argv[optind], std::strerror(errno));
        return 127;
    }
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
        if (::setsid() < 0)
            throw deviceroot::SetupError(std::string("leave the terminal's session: ") + std::strerror(errno));
    } catch (const deviceroot::SetupError &error) {
        std::fprintf(stderr, "%s: cannot set up the private device root: %s\n", argv[0], error.what());
        return setupError;
    }
    std::vector<char *> arguments;
    for (const std::string &argument : program->arguments)
        arguments.push_back(const_cast<char *>(argument.c_str()));
    arguments.push_back(nullptr);
    ::fexecve(program->fd, arguments.data(), environ);
    std::fprintf(stderr, "%s: cannot run %s inside the device root: %s\n", argv[0], argv[optind], std::strerror(errno));
    return 127;
}
