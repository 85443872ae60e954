// The temperature report: four DPB sensor readings from the system-information service, on two lines.
#include "rfSystem_Info.h"

#include "SolSrvInfo.h"
#include "devicePaths.h"

namespace {

using rfsi::paths::temperatureSensors;
// The label that follows each sensor's reading.
const char *const sensorLabels[std::size(temperatureSensors)] = {"(P)", "(M)", "(Y)", "(D)"};

} // namespace

QString rfSystemInfo::checkSystemTemperature()
{
    SolSrvInfo service;
    std::string readings[std::size(temperatureSensors)];
    for (size_t i = 0; i < std::size(temperatureSensors); ++i)
        readings[i] = service.getDpbTemperatureFromInfoFile(temperatureSensors[i]);

    // "<P>(P)/<M>(M)\n<Y>(Y)/<D>(D)": readings as the service gives them, untouched.
    const std::string report = readings[0] + sensorLabels[0] + "/" + readings[1] + sensorLabels[1] + "\n" +
                               readings[2] + sensorLabels[2] + "/" + readings[3] + sensorLabels[3];
    return QString::fromStdString(report);
}
