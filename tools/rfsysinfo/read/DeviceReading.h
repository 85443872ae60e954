// A capture's reading of the device this process sees, through the library, and the serial numbers
// it leaves out when asked to.
#ifndef RFSYSINFO_DEVICEREADING_H
#define RFSYSINFO_DEVICEREADING_H

#include "DeviceState.h"

class rfSystemInfo;

// Reads the fixed paths of the device this process sees, each the way the library opens it (without
// blocking, checked as opened) and within the caps; runs the identity tools when `askTools`.
DeviceState readDeviceState(rfSystemInfo &info, bool askTools);

// Replaces the serial numbers where they stand as whole values: the values of the inventory file's
// serial keys (an empty one or a marker stays, so that a replay shows it missing) and its other values
// that are one of `serials`, the identity tools' answers that are one of them (the serial field's
// answer always, unless empty), the board description's JSON texts that are one of them, and a dated
// calibration file's first line that is one. Nothing else of the copied files is touched.
void replaceSerials(DeviceState &state, const QStringList &serials, const QString &placeholder);

#endif // RFSYSINFO_DEVICEREADING_H
