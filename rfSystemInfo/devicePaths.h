// The instrument's fixed paths: every file the library reads and every program it runs, in one place,
// and the one careful way of opening them. Internal to this project (never installed): the library's
// sources, the service stand-ins and the report tool's capture of a device all take them from here, so
// that a capture misses none of them and reads each as the library does.
#ifndef RFSYSTEMINFO_DEVICEPATHS_H
#define RFSYSTEMINFO_DEVICEPATHS_H

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rfsi::paths {

// Each entry: the name the sources use, and the path. Adding a file here is the only way to give the
// library a new one, and it puts the file into every capture at once.
#define RFSI_DEVICE_FILES(ENTRY)                                                                                       \
    ENTRY(inventoryInfo, "/tmp/SystemInventoryInfo.info")                                                              \
    ENTRY(rfRevision, "/storage/RFHW_Revision.info")                                                                   \
    ENTRY(boardDescription, "/bin/DpbJsonInfo.json")                                                                   \
    ENTRY(flatnessDnc, "/bin/DNC_10_100M.csv")                                                                         \
    ENTRY(flatnessLow, "/bin/Low_10_100M.csv")                                                                         \
    ENTRY(flatnessHigh, "/bin/High_10_100M.csv")                                                                       \
    ENTRY(dncDac1, "/bin/dncDac1.csv")                                                                                 \
    ENTRY(dncDac2, "/bin/dncDac2.csv")                                                                                 \
    ENTRY(yroDacLow, "/bin/nyroFreq1stlow.csv")                                                                        \
    ENTRY(yroDacHigh, "/bin/nyroFreq1sthigh.csv")                                                                      \
    ENTRY(yroSpurLow, "/bin/nyro_spur_low.csv")                                                                        \
    ENTRY(yroSpurHigh, "/bin/nyro_spur_high.csv")                                                                      \
    ENTRY(basicFreqCal, "/bin/basic_freq_cal.csv")                                                                     \
    ENTRY(baseHighFreqCal, "/bin/freq_cal_high.csv")                                                                   \
    ENTRY(baseLowFreqCal, "/bin/freq_cal_low.csv")                                                                     \
    ENTRY(dncFreqCal, "/bin/dnc_freq_cal.csv")                                                                         \
    ENTRY(thirdOffset, "/bin/thirdAmpOffset.dat")                                                                      \
    ENTRY(dspNameList, "/Dsp/name.txt")                                                                                \
    ENTRY(cpriDspNameList, "/DspCpri/name.txt")                                                                        \
    ENTRY(cpriDspVersionList, "/DspCpri/version.txt")

#define RFSI_DECLARE_DEVICE_FILE(name, path) inline constexpr char name[] = path;
RFSI_DEVICE_FILES(RFSI_DECLARE_DEVICE_FILE)
#undef RFSI_DECLARE_DEVICE_FILE

#define RFSI_LIST_DEVICE_FILE(name, path) name,
inline constexpr const char *deviceFiles[] = {RFSI_DEVICE_FILES(RFSI_LIST_DEVICE_FILE)};
#undef RFSI_LIST_DEVICE_FILE

// The identity tools, asked in this order, and the fields they are asked for.
inline constexpr const char *identityTools[] = {"/bin/getSicutil", "/usr/bin/sicutil"};
inline constexpr char productNameField[] = "ProductName";
inline constexpr char productSerialField[] = "ProductSerialNumber";
inline constexpr const char *identityFields[] = {productNameField, productSerialField};
// What the model and serial number queries answer when no tool does.
inline constexpr char fallbackModel[] = "KV720";
inline constexpr char fallbackSerial[] = "SERIALNOTSET";

// The DPB temperature sensors, in the order of the temperature report, and where the kernel keeps
// each one's reading (in millidegrees), which the stand-in for the system-information service reads.
inline constexpr int temperatureSensors[] = {3, 0, 7, 1};
inline std::string thermalZonePath(int sensor)
{
    return "/sys/class/thermal/thermal_zone" + std::to_string(sensor) + "/temp";
}

// Opens a device file for reading without blocking (a FIFO at the path would block the open), without
// making it the controlling terminal and without handing it to child programs. What was opened is
// then checked on the descriptor, so that nothing can be swapped in between the check and the read.
inline int openDeviceNode(const char *path)
{
    return ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
}

// Whether a failed open's `error` means nothing stands at the path for the library: a dangling link or
// a link loop is no file either.
inline bool nothingStandsThere(int error)
{
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG;
}

// The descriptor of the regular file at `path` (links followed), or -1: reads then never block and end
// at the file's size, where a device or a /proc file would never end.
inline int openRegularFile(const char *path)
{
    const int fd = openDeviceNode(path);
    struct stat info;
    if (fd >= 0 && (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode))) {
        ::close(fd);
        return -1;
    }
    return fd;
}

} // namespace rfsi::paths

#endif // RFSYSTEMINFO_DEVICEPATHS_H
