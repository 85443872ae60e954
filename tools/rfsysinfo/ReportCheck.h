// The check: fixed findings over a collected report, each with a stable id, a severity and a message
// that names the data, and a verdict. Rendered as text lines or as a JSON object, and counted by the
// metrics.
#ifndef RFSYSINFO_REPORTCHECK_H
#define RFSYSINFO_REPORTCHECK_H

#include "ReportOutput.h"
#include "SystemReport.h"

#include <QDate>
#include <QJsonObject>

struct Finding
{
    QString id;
    bool error = false; // else a warning
    QString message;
};

struct CheckOptions
{
    int maxCalibrationAgeDays = -1; // -1: the calibration dates are not judged
    QDate today = QDate::currentDate();
    bool strict = false; // warnings fail too
};

QVector<Finding> checkReport(const QVector<ReportSection> &report, const CheckOptions &options);

// Whether the findings pass: no error, and with `strict` no warning either.
bool checkPasses(const QVector<Finding> &findings, bool strict);

QByteArray checkText(const ReportHeader &header, const QVector<Finding> &findings, bool strict);
QByteArray checkJson(const ReportHeader &header, const QVector<Finding> &findings, bool strict);

#endif // RFSYSINFO_REPORTCHECK_H
