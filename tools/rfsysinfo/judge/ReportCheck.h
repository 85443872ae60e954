// The check: fixed findings over a collected report, each with a stable id, a severity and what it
// found as data; and a verdict. Told in words by write/CheckOutput and counted by the metrics.
#ifndef RFSYSINFO_REPORTCHECK_H
#define RFSYSINFO_REPORTCHECK_H

#include "judge/ReleaseProfile.h"
#include "model/ReportModel.h"

#include <QDate>
#include <QJsonObject>

struct Finding
{
    QString id;
    bool error = false; // else a warning
    QJsonObject data;   // what was found, as fields
};

struct CheckOptions
{
    int maxCalibrationAgeDays = -1; // -1: the calibration dates are not judged
    QDate today = QDate::currentDate();
    bool strict = false;                         // warnings fail too
    std::optional<double> criticalTemperature;   // the limit where the inventory gives none
    std::optional<ReleaseProfile> release;       // what the unit must carry
    bool hardwareOnly = false;                   // judge only the release's hardware, nothing else
    QStringList sections = reportSectionNames(); // the sections whose findings count
};

// The critical temperature the check judges by: the inventory's, else the one given.
struct TemperatureLimit
{
    double celsius = 0;
    const char *source = ""; // "inventory" or "option"
};
std::optional<TemperatureLimit> temperatureLimit(const Report &report, const CheckOptions &options);

QVector<Finding> checkReport(const Report &report, const CheckOptions &options);

// --sanitize for findings, made after the check (a replaced serial would hide a fallback): a value that
// is one of `serials` as a whole, and a release's and the unit's value of a serial field, become
// serialPlaceholder in the data, and so in the words.
void sanitizeFindings(QVector<Finding> &findings, const QStringList &serials);

// Whether the findings pass: no error, and with `strict` no warning either.
bool checkPasses(const QVector<Finding> &findings, bool strict);

// The number of findings with this id.
int countOf(const QVector<Finding> &findings, const QString &id);

// The number of errors (`error`) or of warnings.
int countOf(const QVector<Finding> &findings, bool error);

#endif // RFSYSINFO_REPORTCHECK_H
