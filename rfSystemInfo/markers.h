// The fixed texts the library answers in place of data, shared with the tools built beside it.
// Internal to the library: nothing here is exported.
#ifndef RFSYSTEMINFO_MARKERS_H
#define RFSYSTEMINFO_MARKERS_H

namespace rfsi::marker {

inline constexpr char none[] = "NONE";       // a file missing, a value empty, an index out of range
inline constexpr char present[] = "OK";      // a calibration file that is there
inline constexpr char keyMissing[] = "r";    // a present settings file that lacks the key
inline constexpr char noVersion[] = "1000";  // an FPGA bank without a version
inline constexpr char notRecorded[] = "1.0"; // an RF module's revision when the RF file has none
inline constexpr char fixedRfSerial[] = "RFSERIAL";
inline constexpr char noReading[] = "N/A"; // a temperature sensor without a reading

} // namespace rfsi::marker

#endif // RFSYSTEMINFO_MARKERS_H
