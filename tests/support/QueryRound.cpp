#include "QueryRound.h"

#include "rfSystem_Info.h"

namespace rfsitest {

QStringList askEveryQuery(rfSystemInfo &info, bool withIdentityTools)
{
    QStringList answers;
    for (int index = 0; index < 12; ++index) {
        answers << QString::fromStdString(info.getDpbRfSysInfoFromFile(index, true))
                << QString::fromStdString(info.getTopRfSysInfoFromFile(index, true))
                << QString::fromStdString(info.getDpbRfSysInfoFromFile(index, false));
    }
    answers << info.getSystemDpbSerial() << info.getDPBModuleRevision() << QString::number(info.initAllSystemInfo());
    if (withIdentityTools)
        answers << info.getSystemModel() << info.getSystemSerial() << info.executeCmd("/bin/getSicutil", "ProductName");
    answers << info.checkSystemRfSerial() << info.checkSystemFirmwareVersion() << info.checkSystemUIVersion();
    answers << QString::number(info.getYroModuleRevision()) << QString::number(info.getMixerModuleRevision())
            << QString::number(info.getDncModuleRevision()) << QString::fromStdString(info.getYroModuleStringRevision())
            << QString::fromStdString(info.getMixerModuStringRevision())
            << QString::fromStdString(info.getDncModuleStringRevision()) << info.checkRFModuleRevision()
            << info.getRFModuleRevision();
    answers << QString::number(info.loadDpbSysmtemInfo()) << info.getFpgaVersionrfSystemInfo("FPGA_BANK_0_VER");
    answers << info.checkSystemTemperature();
    answers << info.checkFlatnessFile() << info.checkDncDacFile() << info.checkYroDacFile() << info.checkYroSpurFile()
            << info.checkSystemDate("/bin/basic_freq_cal.csv") << info.checkBasicFreqCalFile()
            << info.checkBaseHighFreqCalFile() << info.checkBaseLowFreqCalFile() << info.checkDncFreqCalFile()
            << info.checkThirdOffsetFile();
    answers << QString::number(info.getDspActiveCount()) << info.checkDspVersion(1) << info.checkDspString(1);
    answers << QString::number(info.getCpriDspActiveCount()) << info.checkCpriDspVersion(1)
            << info.checkCpriDspString(1);
    return answers;
}

} // namespace rfsitest
