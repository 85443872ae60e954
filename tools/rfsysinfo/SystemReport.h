// What rfsysinfo reports: everything the library answers, in titled sections, each kept both as
// labelled text lines (for people) and as a JSON object with stable keys (for scripts).
#ifndef RFSYSINFO_SYSTEMREPORT_H
#define RFSYSINFO_SYSTEMREPORT_H

#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QVector>

class rfSystemInfo;

struct ReportLine
{
    QString label;
    QString text;
    bool serial = false; // the text is a serial number
};

struct ReportSection
{
    QString name;  // for --section, and the section's key in the JSON document
    QString title; // heading of the text report
    QVector<ReportLine> lines;
    QJsonObject json;
    QStringList serialKeys; // members of `json` that hold serial numbers
};

struct ReportOptions
{
    QStringList sections; // names to report, in report order; empty: all
    bool identityToolsRun = true;
};

// The labels of the temperature report's readings, in the order the report shows them.
extern const char *const temperatureLabels[4];

// The section names, in report order.
QStringList reportSectionNames();

// Asks the library for every selected section.
QVector<ReportSection> collectReport(rfSystemInfo &info, const ReportOptions &options);

// Replaces every serial number in the report, wherever it appears, by a fixed placeholder.
void sanitizeReport(QVector<ReportSection> &report);

// The serial numbers the report holds, markers left out.
QStringList serialNumbersIn(const QVector<ReportSection> &report);

// Whether `text` is one of the library's marker texts, which are never serial numbers.
bool isMarkerText(const QString &text);

// The placeholder that stands for a serial number in a sanitized report.
extern const QString serialPlaceholder;

#endif // RFSYSINFO_SYSTEMREPORT_H
