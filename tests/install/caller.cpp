#include <rfSystem_Info.h>

#include <cstdio>

int main()
{
    rfSystemInfo *info = rfSystemInfo::param();
    std::printf("%s %s %s\n", info->getDPBModuleRevision().toUtf8().constData(),
                info->getSystemDpbSerial().toUtf8().constData(), info->checkRFModuleRevision().toUtf8().constData());
    return 0;
}
