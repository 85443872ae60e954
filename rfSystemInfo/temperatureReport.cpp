// The temperature report: four DPB sensor readings from the system-information service, on two lines.
#include "rfSystem_Info.h"

#include "SolSrvInfo.h"

namespace {

// Sensors in the order they are read and shown, each with the label that follows its reading.
struct Sensor
{
    int number;
    const char *label;
};
const Sensor sensors[] = {{3, "(P)"}, {0, "(M)"}, {7, "(Y)"}, {1, "(D)"}};

} // namespace

QString rfSystemInfo::checkSystemTemperature()
{
    SolSrvInfo service;
    std::string readings[std::size(sensors)];
    for (size_t i = 0; i < std::size(sensors); ++i)
        readings[i] = service.getDpbTemperatureFromInfoFile(sensors[i].number);

    // "<P>(P)/<M>(M)\n<Y>(Y)/<D>(D)": readings as the service gives them, untouched.
    const std::string report = readings[0] + sensors[0].label + "/" + readings[1] + sensors[1].label + "\n" +
                               readings[2] + sensors[2].label + "/" + readings[3] + sensors[3].label;
    return QString::fromStdString(report);
}
