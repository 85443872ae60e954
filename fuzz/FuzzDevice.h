// What every fuzz target shares: the private device root (entered once, before the first input) and
// writing an input at a fixed path so that the library reads it anew.
#ifndef RFSI_FUZZ_FUZZDEVICE_H
#define RFSI_FUZZ_FUZZDEVICE_H

#include <cstddef>
#include <cstdint>
#include <string>

class rfSystemInfo;

namespace rfsifuzz {

// Writes `size` bytes at a device path, with a modification time of its own (QSettings re-reads an
// INI file only when its size or time changed).
void writeDeviceFile(const std::string &path, const uint8_t *data, size_t size);

// An object of the library; constructed once, after the device root is entered.
rfSystemInfo &library();

} // namespace rfsifuzz

#endif // RFSI_FUZZ_FUZZDEVICE_H
