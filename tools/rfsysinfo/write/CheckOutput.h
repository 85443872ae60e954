// The check's verdict for people (a line a finding, then a summary) and for scripts (one JSON document).
#ifndef RFSYSINFO_CHECKOUTPUT_H
#define RFSYSINFO_CHECKOUTPUT_H

#include "judge/ReportCheck.h"

#include <QByteArray>

QByteArray checkText(const Report &report, const QVector<Finding> &findings, const CheckOptions &options);
QByteArray checkJson(const Report &report, const QVector<Finding> &findings, const CheckOptions &options);

#endif // RFSYSINFO_CHECKOUTPUT_H
