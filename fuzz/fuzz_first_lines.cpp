// The files of which only the first line counts: the dated calibration files and a thermal zone.
#include "FuzzDevice.h"

#include <rfSystem_Info.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    for (const char *path :
         {"/bin/basic_freq_cal.csv", "/bin/freq_cal_high.csv", "/bin/freq_cal_low.csv", "/bin/dnc_freq_cal.csv",
          "/bin/thirdAmpOffset.dat", "/sys/class/thermal/thermal_zone3/temp"})
        rfsifuzz::writeDeviceFile(path, data, size);
    rfSystemInfo &info = rfsifuzz::library();
    info.checkBasicFreqCalFile();
    info.checkBaseHighFreqCalFile();
    info.checkBaseLowFreqCalFile();
    info.checkDncFreqCalFile();
    info.checkThirdOffsetFile();
    info.checkSystemDate("/bin/basic_freq_cal.csv");
    info.checkSystemTemperature();
    return 0;
}
