// The two forms of the report: aligned text for people, one JSON document for scripts.
#ifndef RFSYSINFO_REPORTOUTPUT_H
#define RFSYSINFO_REPORTOUTPUT_H

#include "SystemReport.h"

#include <QByteArray>

struct ReportHeader
{
    QString version;
    QString deviceTree;   // empty: the machine's own paths
    bool capture = false; // deviceTree is a capture archive
    bool sanitized = false;
};

// The keys every JSON document of the tool starts with: the tool, its version and the source.
QJsonObject jsonHeader(const ReportHeader &header);

QByteArray textReport(const ReportHeader &header, const QVector<ReportSection> &report);
QByteArray jsonReport(const ReportHeader &header, const QVector<ReportSection> &report);

#endif // RFSYSINFO_REPORTOUTPUT_H
