// The counted lists: DSP names, CPRI DSP names and versions, with every index the queries accept.
#include "FuzzDevice.h"

#include <rfSystem_Info.h>

#include <climits>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    for (const char *path : {"/Dsp/name.txt", "/DspCpri/name.txt", "/DspCpri/version.txt"})
        rfsifuzz::writeDeviceFile(path, data, size);
    rfSystemInfo &info = rfsifuzz::library();
    info.getDspActiveCount();
    info.getCpriDspActiveCount();
    for (int index : {INT_MIN, -1, 0, 1, 2, 9, 10, 15, 16, 29, 30, INT_MAX}) {
        info.checkDspString(index);
        info.checkCpriDspString(index);
        info.checkCpriDspVersion(index);
    }
    return 0;
}
