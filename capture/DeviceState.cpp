#include "DeviceState.h"

#include "devicePaths.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

// The manifest's names of the kinds, in NodeKind's order.
const QStringList kindNames = {"file", "missing", "folder", "other", "unreachable"};

// Where a replay puts what an unreachable node leads to: inside a folder that may not be searched.
constexpr char unreachableFolder[] = "/.rfsi-replay/unreachable";

// Where a replay keeps the recorded answers: one file per program and field, below this folder and
// the program's own path. Outside every fixed path, so the library never sees it.
constexpr char answersFolder[] = "/.rfsi-replay/identity";

// Stands at an identity tool's path during a replay. It prints the answer recorded for the program it
// was started as and the field it is asked for (its last argument), and nothing when there is none:
// the answers stay data, and no program of the captured device ever runs.
constexpr char replayProgram[] = R"(#!/bin/sh
# rfsysinfo replay: prints the answer that an identity tool gave when its device was captured.
for field; do :; done
case $field in '' | *[!A-Za-z0-9_]*) exit 0 ;; esac
answer="/.rfsi-replay/identity$0/$field"
[ -f "$answer" ] && exec cat -- "$answer"
exit 0
)";

bool fail(QString &error, const QString &what, const std::string &path)
{
    error = QStringLiteral("cannot %1 %2: %3").arg(what, QString::fromStdString(path), std::strerror(errno));
    return false;
}

bool writeFile(const std::string &path, const QByteArray &content, mode_t mode, QString &error)
{
    std::error_code ignored;
    fs::create_directories(fs::path(path).parent_path(), ignored);
    QFile file(QString::fromStdString(path));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(content) != content.size())
        return fail(error, "write", path);
    file.close();
    return ::chmod(path.c_str(), mode) == 0 || fail(error, "set the mode of", path);
}

// Makes `node.path` hold what was recorded there; whatever stood there before goes.
bool putNode(const DeviceNode &node, QString &error)
{
    const std::string path = QFile::encodeName(node.path).toStdString();
    std::error_code removal;
    fs::remove_all(path, removal);
    if (removal) {
        errno = removal.value();
        return fail(error, "clear", path);
    }
    std::error_code ignored;
    switch (node.kind) {
    case NodeKind::Missing:
        return true;
    case NodeKind::Folder:
        return fs::create_directories(path, ignored) || fail(error, "make the folder", path);
    case NodeKind::Other:
        // Present and unreadable, as the node that stood there was.
        fs::create_directories(fs::path(path).parent_path(), ignored);
        return ::mkfifo(path.c_str(), 0644) == 0 || fail(error, "make the node", path);
    case NodeKind::Unreachable:
        fs::create_directories(fs::path(path).parent_path(), ignored);
        fs::create_directories(unreachableFolder, ignored);
        return (::chmod(unreachableFolder, 0) == 0 || fail(error, "set the mode of", unreachableFolder)) &&
               (::symlink((unreachableFolder + std::string("/node")).c_str(), path.c_str()) == 0 ||
                fail(error, "make the link", path));
    case NodeKind::File:
        break;
    }
    if (!writeFile(path, node.content, 0644, error))
        return false;
    const time_t modified = static_cast<time_t>(node.modified);
    const timespec times[2] = {{modified, 0}, {modified, 0}};
    return ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0 || fail(error, "set the time of", path);
}

bool putReplayProgram(const DeviceNode &tool, const DeviceState &state, QString &error)
{
    for (const IdentityAnswer &answer : state.answers) {
        if (answer.program != tool.path)
            continue;
        const std::string path =
            answersFolder + QFile::encodeName(answer.program + '/' + answer.argument).toStdString();
        if (!writeFile(path, answer.output.toUtf8(), 0644, error))
            return false;
    }
    return writeFile(QFile::encodeName(tool.path).toStdString(), replayProgram, 0755, error);
}

} // namespace

int openInput(const QString &path, bool foldersWanted, bool &isFolder, QString &refusal)
{
    int fd = rfsi::paths::openDeviceNode(QFile::encodeName(path).constData());
    // A socket cannot be opened for reading at all; a descriptor of the path itself says what it is.
    const bool pathOnly = fd < 0 && errno == ENXIO;
    if (pathOnly)
        fd = ::open(QFile::encodeName(path).constData(), O_PATH | O_CLOEXEC);
    struct stat info;
    if (fd < 0 || ::fstat(fd, &info) != 0) {
        refusal = QString::fromLocal8Bit(std::strerror(errno));
        if (fd >= 0)
            ::close(fd);
        return -1;
    }
    isFolder = S_ISDIR(info.st_mode);
    if (!pathOnly && (S_ISREG(info.st_mode) || (isFolder && foldersWanted)))
        return fd;
    ::close(fd);
    refusal = QStringLiteral("it is %1, not a regular file%2")
                  .arg(QLatin1String(nodeKindText(info.st_mode)), QLatin1String(foldersWanted ? " or a folder" : ""));
    return -1;
}

const char *nodeKindText(mode_t mode)
{
    return S_ISLNK(mode)                    ? "a symbolic link"
           : S_ISDIR(mode)                  ? "a folder"
           : S_ISFIFO(mode)                 ? "a FIFO"
           : S_ISSOCK(mode)                 ? "a socket"
           : S_ISCHR(mode) || S_ISBLK(mode) ? "a device"
                                            : "no regular file";
}

bool readUpTo(int fd, qint64 limit, QByteArray &content)
{
    char buffer[65536];
    for (;;) {
        const qint64 room = limit - content.size();
        const ssize_t count = ::read(fd, buffer, static_cast<size_t>(std::min<qint64>(room + 1, sizeof buffer)));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return true;
        content.append(buffer, static_cast<int>(std::min<qint64>(count, room)));
        if (count > room)
            return false;
    }
}

QString nodeKindName(NodeKind kind)
{
    return kindNames.value(static_cast<int>(kind));
}

bool nodeKindFromName(const QString &name, NodeKind &kind)
{
    const int index = static_cast<int>(kindNames.indexOf(name));
    if (index >= 0)
        kind = static_cast<NodeKind>(index);
    return index >= 0;
}

QStringList capturedFilePaths()
{
    QStringList paths;
    for (const char *path : rfsi::paths::deviceFiles)
        paths << QLatin1String(path);
    for (int sensor : rfsi::paths::temperatureSensors)
        paths << QString::fromStdString(rfsi::paths::thermalZonePath(sensor));
    paths.sort();
    return paths;
}

QStringList identityToolPaths()
{
    QStringList paths;
    for (const char *tool : rfsi::paths::identityTools)
        paths << QLatin1String(tool);
    return paths;
}

QStringList DeviceState::truncatedFiles() const
{
    QStringList paths;
    for (const DeviceNode &file : files)
        if (file.truncated)
            paths << file.path;
    return paths;
}

bool applyDeviceState(const DeviceState &state, QString &error)
{
    for (const DeviceNode &file : state.files)
        if (!putNode(file, error))
            return false;
    for (const DeviceNode &tool : state.tools) {
        // A tool that was asked answers as it did; one that was not stays silent, as it was.
        const bool replayed = tool.kind == NodeKind::File && state.toolsAsked;
        DeviceNode placeholder = tool;
        if (tool.kind == NodeKind::File)
            placeholder.kind = NodeKind::Missing;
        if (!putNode(placeholder, error) || (replayed && !putReplayProgram(tool, state, error)))
            return false;
    }
    return true;
}
