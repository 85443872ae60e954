// What the tests share: files at device paths inside the private device root, a fixture that gives
// every test an empty device, and a way to run checks in a fresh process of the test binary.
#ifndef RFSI_TESTS_DEVICETEST_H
#define RFSI_TESTS_DEVICETEST_H

#include <gtest/gtest.h>

#include <QString>

#include <functional>
#include <string>

#include <sys/types.h>

// A failure shows a text as text, not as a list of characters.
inline void PrintTo(const QString &text, std::ostream *out)
{
    *out << '"' << text.toStdString() << '"';
}

namespace rfsitest {

// Writes `content` at a device path, creating its folders. Every write gives the file a modification
// time of its own, so that QSettings (which re-reads an INI file only when its size or time changed)
// sees the new content.
void writeDeviceFile(const std::string &path, const std::string &content, mode_t mode = 0644);

// Puts a shell script at a device path, as an executable program.
void installTool(const std::string &path, const std::string &script);

// Copies the sample device tree (examples/device) to the device's own paths.
void installSampleDevice();

// Runs `checks` in a new process of this test binary: its own device root, the library loaded but no
// rfSystemInfo constructed yet. The test fails when a check in it fails.
void inFreshProcess(const std::function<void()> &checks);

// Every test starts on an empty device.
class DeviceTest : public ::testing::Test
{
protected:
    void SetUp() override;
};

} // namespace rfsitest

#endif // RFSI_TESTS_DEVICETEST_H
