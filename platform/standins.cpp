// Our stand-ins for the instrument's own service libraries, so that the library builds, runs and is
// tested without them. Each keeps the contract the library relies on and nothing more.
#include "DpbJsonHandle.h"
#include "SolSrvInfo.h"
#include "VersionInfo.h"

#include <QByteArray>

#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char notAvailable[] = "N/A";
// Longer than any number a thermal zone prints ("-273150\n").
constexpr size_t thermalReadLimit = 32;

// The kernel's thermal zone reading in millidegrees; false when the file is missing, is not a regular
// file or does not hold a whole number. Opened without blocking, so a FIFO put there cannot hang us.
bool readMillidegrees(int sensor, long long *millidegrees)
{
    const std::string path = "/sys/class/thermal/thermal_zone" + std::to_string(sensor) + "/temp";
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return false;
    struct stat info;
    char buffer[thermalReadLimit];
    ssize_t size = -1;
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode))
        size = ::read(fd, buffer, sizeof buffer);
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
        return notAvailable;
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", static_cast<double>(millidegrees) / 1000.0);
    return text;
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
