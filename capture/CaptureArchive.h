// The capture archive: one gzip-compressed tar that holds a device's state. The manifest
// "capture.json" comes first; then every copied file at its fixed path (without the leading "/"),
// sorted, owned by root, mode 0644, with its own modification time.
#ifndef RFSYSINFO_CAPTUREARCHIVE_H
#define RFSYSINFO_CAPTUREARCHIVE_H

#include "DeviceState.h"

#include <QByteArray>
#include <QString>

#include <optional>

// The manifest's name and the format version this tool writes. It reads version 1 too, which did not
// record the instrument's software.
inline constexpr char manifestName[] = "capture.json";
inline constexpr int captureFormatVersion = 2;
// The manifest keeps the identity tools' answers whole, so it may take what one file may.
constexpr qint64 manifestCap = 16 << 20;

// The archive of `state`, made as its origin says; nothing (with `error`) when libarchive fails.
std::optional<QByteArray> captureArchive(const DeviceState &state, QString &error);

// The capture at `path`, read before any device root hides it. Nothing when `path` is a folder (a
// device tree: `isFolder`), or cannot be read or is refused (`error` says why, naming the path). An
// archive is untrusted input: anything a capture does not write is refused, with a one-line reason
// that names the entry, before anything is put anywhere. Decompression stops at the caps, so a small
// archive that would unpack to gigabytes costs no more than the caps allow.
std::optional<DeviceState> readCaptureAt(const QString &path, bool &isFolder, QString &error);

#endif // RFSYSINFO_CAPTUREARCHIVE_H
