// A device's state as the library sees it: what stands at each fixed path (with the bytes of every
// file it reads) and what the identity tools answered. Read from a device for a capture, and put back
// into a private device root for a replay.
#ifndef RFSI_CAPTURE_DEVICESTATE_H
#define RFSI_CAPTURE_DEVICESTATE_H

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QStringList>
#include <QVector>

#include <optional>

#include <sys/types.h>

// What the report shows that comes from the instrument's software rather than its files: a replay
// must show the instrument's, not those of the machine it runs on.
struct InstrumentSoftware
{
    QString firmwareVersion, uiVersion, rfSerial;
};

// Where and when a capture was made.
struct CaptureOrigin
{
    QString toolVersion; // of the rfsysinfo (and library) that made it
    QDateTime captured;
    QString sourceTree; // empty: captured on the instrument itself
    bool sanitized = false;
    std::optional<InstrumentSoftware> software; // captures of format 1 have none
};

// What stands at a fixed path. The library reads anything but a regular file as present and
// unreadable, so a folder and another kind of node are recorded, never copied. A node behind a folder
// that may not be searched is unreachable: it does not exist for a look at it, but does not open either.
enum class NodeKind { File, Missing, Folder, Other, Unreachable };

QString nodeKindName(NodeKind kind);
// False when `name` names no kind.
bool nodeKindFromName(const QString &name, NodeKind &kind);

struct DeviceNode
{
    QString path; // absolute, as the library reads it
    NodeKind kind = NodeKind::Missing;
    QByteArray content;     // File: the bytes, at most captureFileCap of them
    qint64 modified = 0;    // File: modification time, seconds since the epoch
    bool truncated = false; // File: longer than what was copied
};

struct IdentityAnswer
{
    QString program;
    QString argument;
    QString output; // as the command runner returned it
};

struct DeviceState
{
    QVector<DeviceNode> files; // every file the library and the stand-ins read, sorted by path
    QVector<DeviceNode> tools; // the identity tools' paths: their kind only, never their bytes
    bool toolsAsked = false;   // whether the identity tools were run for the answers
    QVector<IdentityAnswer> answers;
    CaptureOrigin origin;

    // The paths of the files the capture cut at captureFileCap (or at the total cap).
    QStringList truncatedFiles() const;
};

// How much of a device a capture takes: per file, and in all.
constexpr qint64 captureFileCap = 16 << 20;
constexpr qint64 captureTotalCap = 64 << 20;

// Reads at most `limit` bytes of `fd` into `content`; false when the file goes on beyond them.
bool readUpTo(int fd, qint64 limit, QByteArray &content);

// An input named on a command line (a capture, a saved report, a release profile, a device tree),
// opened without blocking (a FIFO would hold the open) and judged on the open descriptor, so that
// nothing can be swapped in between. The descriptor of a regular file, or of a folder where folders
// are wanted (`isFolder` tells which); else -1 and why ("it is a FIFO, not a regular file").
int openInput(const QString &path, bool foldersWanted, bool &isFolder, QString &refusal);

// What a node that is no regular file is, as a refusal names it: "a FIFO", "a symbolic link", ...
const char *nodeKindText(mode_t mode);

// The paths of every file a capture copies, sorted.
QStringList capturedFilePaths();
// The identity tools' paths, in the order the library asks them.
QStringList identityToolPaths();

// Inside a private device root: makes every fixed path hold what `state` recorded, and lets the
// identity tools answer what they answered (when they were asked) through a replay program of this
// tool's own, which reads the recorded answers as data. False with `error` when a step fails.
bool applyDeviceState(const DeviceState &state, QString &error);

#endif // RFSI_CAPTURE_DEVICESTATE_H
