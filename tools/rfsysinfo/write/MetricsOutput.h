// The report for Prometheus: the text exposition format (0.0.4) that node_exporter's textfile
// collector reads. Texts are labels of "_info" gauges with the value 1, numbers are gauges, and a
// reading that is no number is left out rather than written as text.
#ifndef RFSYSINFO_METRICSOUTPUT_H
#define RFSYSINFO_METRICSOUTPUT_H

#include "judge/ReportCheck.h"

#include <QByteArray>

QByteArray metricsReport(const Report &report, const QVector<Finding> &findings, const CheckOptions &options);

#endif // RFSYSINFO_METRICSOUTPUT_H
