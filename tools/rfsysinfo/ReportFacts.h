// Typed facts read back from a collected report, for the renderers that judge or count rather than
// print: the check and the metrics. They read the report's JSON model, never the device again.
#ifndef RFSYSINFO_REPORTFACTS_H
#define RFSYSINFO_REPORTFACTS_H

#include "SystemReport.h"

#include <QDate>
#include <QJsonValue>

#include <optional>

// A member of a section, by path ("rf/summary", "dsp/images"); undefined when absent.
QJsonValue reportValue(const QVector<ReportSection> &report, const QString &path);

// A text read as a number (C locale, white space around allowed); nothing when it is none.
std::optional<double> numberIn(const QString &text);

// The date a text begins with (YYYY-MM-DD), if it does.
std::optional<QDate> leadingDate(const QString &text);

struct CalibrationFile
{
    QString key;  // the calibration section's member that reports it
    QString path; // where the library looks for it
    bool present = false;
    bool dated = false;    // one of the five whose first line the report shows
    bool readable = false; // dated and present: the first line could be read
    QString firstLine;
};

// Every calibration file the report covers, in report order.
QVector<CalibrationFile> calibrationFilesOf(const QVector<ReportSection> &report);

struct TemperatureReading
{
    QString sensor; // P, M, Y, D
    QString text;
    std::optional<double> celsius;
};

QVector<TemperatureReading> temperatureReadingsOf(const QVector<ReportSection> &report);

// The DPB's critical temperature from the inventory, when it is a number.
std::optional<double> criticalTemperatureOf(const QVector<ReportSection> &report);

#endif // RFSYSINFO_REPORTFACTS_H
