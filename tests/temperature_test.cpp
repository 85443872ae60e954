// The temperature report, from the kernel's thermal zones through the temperature service stand-in.
#include "DeviceTest.h"
#include "rfSystem_Info.h"

using namespace rfsitest;

namespace {

void writeZone(int zone, const std::string &content)
{
    writeDeviceFile("/sys/class/thermal/thermal_zone" + std::to_string(zone) + "/temp", content);
}

} // namespace

class TemperatureTest : public DeviceTest
{
protected:
    rfSystemInfo &info = *rfSystemInfo::param();
};

TEST_F(TemperatureTest, ReportShowsSensorsThreeZeroSevenOneOnTwoLines)
{
    writeZone(3, "45200\n");
    writeZone(0, "41000\n");
    writeZone(7, "38500\n");
    writeZone(1, "36100\n");
    writeZone(2, "99000\n"); // not a sensor of the report
    EXPECT_EQ(info.checkSystemTemperature(), "45.2(P)/41.0(M)\n38.5(Y)/36.1(D)");
}

TEST_F(TemperatureTest, ReadingsAreDegreesWithOneDecimalOrNotAvailable)
{
    const std::pair<const char *, QString> cases[] = {
        {"45200\n", "45.2"}, {"-1500", "-1.5"}, {"0", "0.0"},    {" 99960 \n", "100.0"},
        {"abc", "N/A"},      {"", "N/A"},       {"12.5", "N/A"},
    };
    for (const auto &[content, reading] : cases) {
        writeZone(3, content);
        EXPECT_EQ(info.checkSystemTemperature(), reading + "(P)/N/A(M)\nN/A(Y)/N/A(D)") << content;
    }
}
