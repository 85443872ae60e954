// A caller as the instrument's UI is one: take the process-wide instance, ask, show the answers.
#include <rfSystem_Info.h>

#include <cstdio>

int main()
{
    rfSystemInfo *info = rfSystemInfo::param();

    std::printf("Product name     %s\n", info->getSystemDpbSerial().toUtf8().constData());
    std::printf("DPB revision     %s\n", info->getDPBModuleRevision().toUtf8().constData());
    std::printf("DPB serial       %s\n", info->getDpbRfSysInfoFromFile(3, false).c_str());
    std::printf("RF revisions     %s\n", info->checkRFModuleRevision().toUtf8().constData());
    std::printf("  YRO            %d (%s)\n", info->getYroModuleRevision(), info->getYroModuleStringRevision().c_str());
    std::printf("  Mixer          %d (%s)\n", info->getMixerModuleRevision(),
                info->getMixerModuStringRevision().c_str());
    std::printf("  DNC            %d (%s)\n", info->getDncModuleRevision(), info->getDncModuleStringRevision().c_str());
    return 0;
}
