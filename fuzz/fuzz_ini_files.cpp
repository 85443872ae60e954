// The INI files: the inventory info file and the RF revision file, through every query that reads them.
#include "FuzzDevice.h"

#include <rfSystem_Info.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    rfsifuzz::writeDeviceFile("/tmp/SystemInventoryInfo.info", data, size);
    rfsifuzz::writeDeviceFile("/storage/RFHW_Revision.info", data, size);
    rfSystemInfo &info = rfsifuzz::library();
    for (int index = 0; index < 12; ++index) {
        info.getDpbRfSysInfoFromFile(index, true);
        info.getTopRfSysInfoFromFile(index, true);
    }
    rfSystemInfo::updatedSystemInfo = false;
    info.initAllSystemInfo();
    info.getSystemDpbSerial();
    info.getDPBModuleRevision();
    info.getRFModuleRevision();
    info.getYroModuleRevision();
    info.getMixerModuleRevision();
    info.getDncModuleRevision();
    info.getYroModuleStringRevision();
    info.getMixerModuStringRevision();
    info.getDncModuleStringRevision();
    return 0;
}
