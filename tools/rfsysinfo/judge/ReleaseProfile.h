// A release profile: a JSON file in the shape of the report itself, reduced to what must hold on a unit
// of the release. A value is the expected one or a list of accepted ones; DSP and CPRI DSP images are
// matched by index. A saved report is a profile as it stands (without its temperature section).
#ifndef RFSYSINFO_RELEASEPROFILE_H
#define RFSYSINFO_RELEASEPROFILE_H

#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QVector>

#include <optional>

struct ReleaseProfile
{
    QString name; // the profile's "profile" text, else its file name
    QJsonObject expected;
};

// The profile at `path`, or nothing with a refusal that names the place in the file.
std::optional<ReleaseProfile> readReleaseProfile(const QString &path, QString &refusal);

struct ReleaseMismatch
{
    QString section, key; // key: "banks.FPGA_BANK_2_VER", "images[1].name"
    QJsonValue expected;  // a value, or the list of accepted values
    QJsonValue actual;    // undefined: absent
};

// What of `profile` an update cannot change: the inventory's revisions and the RF module revisions.
// Judged before an update installs, so that a release built for other hardware is refused at once.
ReleaseProfile hardwareOf(const ReleaseProfile &profile);

// Where the report's sections (as the JSON report holds them) differ from the profile.
QVector<ReleaseMismatch> releaseMismatches(const ReleaseProfile &profile, const QJsonObject &sections);

#endif // RFSYSINFO_RELEASEPROFILE_H
