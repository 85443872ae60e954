// Our stand-ins for the instrument's own service libraries, so that the library builds, runs and is
// tested without them. Each keeps the contract the library relies on and nothing more.
#include "DpbJsonHandle.h"
#include "SolSrvInfo.h"
#include "VersionInfo.h"
#include "devicePaths.h"
#include "markers.h"

#include <QByteArray>

#include <charconv>

#include <unistd.h>

namespace {

// Longer than any number a thermal zone prints ("-273150\n").
constexpr size_t thermalReadLimit = 32;

// The kernel's thermal zone reading in millidegrees; false when the file is missing, is not a regular
// file or does not hold a whole number. Opened without blocking, so a FIFO put there cannot hang us.
bool readMillidegrees(int sensor, long long *millidegrees)
{
    const int fd = rfsi::paths::openRegularFile(rfsi::paths::thermalZonePath(sensor).c_str());
    if (fd < 0)
        return false;
    char buffer[thermalReadLimit];
    const ssize_t size = ::read(fd, buffer, sizeof buffer);
    ::close(fd);
    if (size <= 0)
        return false;
    bool ok = false;
    *millidegrees = QByteArray(buffer, static_cast<int>(size)).trimmed().toLongLong(&ok);
    return ok;
}

} // namespace

SolSrvInfo::SolSrvInfo() = default;
SolSrvInfo::~SolSrvInfo() = default;

std::string SolSrvInfo::getDpbTemperatureFromInfoFile(int sensor)
{
    long long millidegrees = 0;
    if (!readMillidegrees(sensor, &millidegrees))
        return rfsi::marker::noReading;
    // to_chars, not printf: the same text in every locale of the caller ("45.2", never "45,2").
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, static_cast<double>(millidegrees) / 1000.0,
                                   std::chars_format::fixed, 1);
    return std::string(text, end.ptr);
}

DpbJsonHandle::DpbJsonHandle() = default;
DpbJsonHandle::~DpbJsonHandle() = default;

QJsonObject DpbJsonHandle::getObjectList(QJsonDocument &document, QString name)
{
    return document.object().value(name).toObject();
}

QString VersionInfo::getPkgVersion()
{
    return QStringLiteral(RFSI_PACKAGE_VERSION);
}
