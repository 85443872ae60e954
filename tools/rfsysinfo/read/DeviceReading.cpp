#include "read/DeviceReading.h"

#include "devicePaths.h"
#include "model/ReportModel.h"

#include <rfSystem_Info.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// What stands at `path`, as the library would find it; with the bytes when `copyLimit` allows.
DeviceNode readNode(const QString &path, qint64 copyLimit)
{
    DeviceNode node{path, NodeKind::Missing, {}, 0, false};
    const int fd = rfsi::paths::openDeviceNode(QFile::encodeName(path).constData());
    if (fd < 0) {
        // Present for a look at it (the library's test for calibration files) or not even that.
        struct stat info;
        if (rfsi::paths::nothingStandsThere(errno))
            node.kind = NodeKind::Missing;
        else if (::stat(QFile::encodeName(path).constData(), &info) == 0)
            node.kind = NodeKind::Other;
        else
            node.kind = rfsi::paths::nothingStandsThere(errno) ? NodeKind::Missing : NodeKind::Unreachable;
        return node;
    }
    struct stat info;
    if (::fstat(fd, &info) != 0)
        node.kind = NodeKind::Other;
    else if (S_ISDIR(info.st_mode))
        node.kind = NodeKind::Folder;
    else if (!S_ISREG(info.st_mode))
        node.kind = NodeKind::Other;
    else {
        node.kind = NodeKind::File;
        node.modified = info.st_mtim.tv_sec;
        // The size is what a read gives: files below /sys claim a size they do not have.
        if (copyLimit >= 0)
            node.truncated = !readUpTo(fd, copyLimit, node.content);
    }
    ::close(fd);
    return node;
}

// The inventory file with the value of each serial key replaced (unless it is empty or a marker), and
// every other value that is one of `serials` as a whole, whatever section it stands in; every other
// byte, line ends included, as it was.
QByteArray withSerialValuesReplaced(const QByteArray &inventory, const QStringList &serials,
                                    const QByteArray &placeholder)
{
    static const QByteArray serialKeys[] = {"DPB_SerialNumber", "DPB_ParentSerialNumber", "TOP_ProductSerialNumber"};
    QList<QByteArray> lines = inventory.split('\n');
    for (QByteArray &line : lines) {
        const int equals = line.indexOf('=');
        if (equals < 0)
            continue;
        const bool serialKey = std::find(std::begin(serialKeys), std::end(serialKeys), line.left(equals).trimmed()) !=
                               std::end(serialKeys);
        QByteArray value = line.mid(equals + 1).trimmed();
        if (value.size() >= 2 && value.startsWith('"') && value.endsWith('"'))
            value = value.mid(1, value.size() - 2);
        // An empty serial stays empty: a replay must show it missing, as the check on the device does.
        if ((serialKey && !isMarkerText(QString::fromUtf8(value))) || serials.contains(QString::fromUtf8(value)))
            line = line.left(equals + 1) + placeholder + (line.endsWith('\r') ? "\r" : "");
    }
    return lines.join('\n');
}

// A dated calibration file with its first line replaced where that line is one of `serials` as a whole:
// the report shows the first line, so a replay must not show the serial there.
QByteArray withSerialFirstLineReplaced(const QByteArray &file, const QStringList &serials,
                                       const QByteArray &placeholder)
{
    const int end = file.indexOf('\n');
    QByteArray line = end < 0 ? file : file.left(end);
    const bool carriageReturn = line.endsWith('\r');
    if (carriageReturn)
        line.chop(1);
    if (!serials.contains(QString::fromUtf8(line)))
        return file;
    return placeholder + (carriageReturn ? "\r" : "") + (end < 0 ? QByteArray() : file.mid(end));
}

// `text` as a JSON string, quotes included.
QByteArray jsonText(const QString &text)
{
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

} // namespace

DeviceState readDeviceState(rfSystemInfo &info, bool askTools)
{
    DeviceState state;
    qint64 budget = captureTotalCap;
    for (const QString &path : capturedFilePaths()) {
        state.files << readNode(path, std::min(captureFileCap, budget));
        budget -= state.files.back().content.size();
    }
    for (const QString &tool : identityToolPaths())
        state.tools << readNode(tool, -1);
    state.toolsAsked = askTools;
    state.origin.software =
        InstrumentSoftware{info.checkSystemFirmwareVersion(), info.checkSystemUIVersion(), info.checkSystemRfSerial()};
    if (askTools) {
        for (const char *tool : rfsi::paths::identityTools)
            for (const char *field : rfsi::paths::identityFields)
                state.answers.push_back({QLatin1String(tool), QLatin1String(field), info.executeCmd(tool, field)});
    }
    return state;
}

void replaceSerials(DeviceState &state, const QStringList &serials, const QString &placeholder)
{
    static const QStringList datedFiles = datedCalibrationFiles();
    for (DeviceNode &file : state.files) {
        if (file.path == QLatin1String(rfsi::paths::inventoryInfo))
            file.content = withSerialValuesReplaced(file.content, serials, placeholder.toUtf8());
        if (datedFiles.contains(file.path))
            file.content = withSerialFirstLineReplaced(file.content, serials, placeholder.toUtf8());
        // The board description records the board's serial too, as a JSON text of its own.
        if (file.path == QLatin1String(rfsi::paths::boardDescription))
            for (const QString &serial : serials)
                file.content.replace(jsonText(serial), jsonText(placeholder));
    }
    for (IdentityAnswer &answer : state.answers)
        if ((answer.argument == QLatin1String(rfsi::paths::productSerialField) && !answer.output.trimmed().isEmpty()) ||
            serials.contains(answer.output.trimmed()))
            answer.output = placeholder;
    if (state.origin.software && serials.contains(state.origin.software->rfSerial))
        state.origin.software->rfSerial = placeholder;
}
