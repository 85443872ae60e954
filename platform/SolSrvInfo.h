// The instrument's system-information service, as this library calls it.
#ifndef PLATFORM_SOLSRVINFO_H
#define PLATFORM_SOLSRVINFO_H

#include <QtGlobal>

#include <string>

class Q_DECL_EXPORT SolSrvInfo
{
public:
    SolSrvInfo();
    ~SolSrvInfo();

    // Temperature of DPB sensor `sensor` in degrees Celsius with one decimal ("45.2"), or "N/A".
    std::string getDpbTemperatureFromInfoFile(int sensor);
};

#endif // PLATFORM_SOLSRVINFO_H
