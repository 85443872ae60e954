// The capture archive: one gzip-compressed tar that holds a device's state. The manifest
// "capture.json" comes first; then every copied file at its fixed path (without the leading "/"),
// sorted, owned by root, mode 0644, with its own modification time.
#ifndef RFSYSINFO_CAPTUREARCHIVE_H
#define RFSYSINFO_CAPTUREARCHIVE_H

#include "DeviceState.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>

#include <optional>

struct CaptureHeader
{
    QString toolVersion;
    QDateTime captured;
    QString sourceTree; // empty: captured on this instrument
    bool sanitized = false;
};

// The manifest's name and the one format version this tool writes and reads.
inline constexpr char manifestName[] = "capture.json";
inline constexpr int captureFormatVersion = 1;
// The manifest is small; anything larger is no manifest of ours.
constexpr qint64 manifestCap = 1 << 20;

QByteArray captureArchive(const DeviceState &state, const CaptureHeader &header);

// Reads a capture archive from `fd`. An archive is untrusted input: anything a capture does not
// write is refused, with a one-line reason that names the entry, before anything is put anywhere.
// Decompression stops at the caps, so a small archive that would unpack to gigabytes costs no more
// than the caps allow.
std::optional<DeviceState> readCaptureArchive(int fd, QString &refusal);

#endif // RFSYSINFO_CAPTUREARCHIVE_H
