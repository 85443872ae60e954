// The board description: parsing, the FPGA section and the DSP versions that come from it.
#include "FuzzDevice.h"

#include <rfSystem_Info.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    rfsifuzz::writeDeviceFile("/bin/DpbJsonInfo.json", data, size);
    rfSystemInfo &info = rfsifuzz::library();
    info.loadDpbSysmtemInfo();
    for (const std::string &key : info.fpgaBankKeys)
        info.getFpgaVersionrfSystemInfo(QString::fromStdString(key));
    info.getFpgaVersionrfSystemInfo(QString());
    for (int index = -1; index <= 3; ++index)
        info.checkDspVersion(index);
    return 0;
}
