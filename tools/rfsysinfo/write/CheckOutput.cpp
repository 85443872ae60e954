#include "write/CheckOutput.h"

#include "model/ReportJson.h"
#include "write/ReportOutput.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace {

QString plural(int count, const char *word)
{
    return QStringLiteral("%1 %2%3").arg(count).arg(QLatin1String(word)).arg(count == 1 ? "" : "s");
}

} // namespace

QByteArray checkText(const Report &report, const QVector<Finding> &findings, const CheckOptions &options)
{
    const bool strict = options.strict;
    QString text;
    for (const Finding &finding : findings)
        text += QStringLiteral("%1 %2 %3\n")
                    .arg(QString::fromLatin1(finding.error ? "error" : "warning").leftJustified(7),
                         finding.id.leftJustified(25), finding.message);
    text += QStringLiteral("rfsysinfo %1 check of %2 (%3 %4)%5: %6, %7 and %8%9\n")
                .arg(report.source.toolVersion, sourceDescription(report.source), report.identity.model,
                     report.identity.serialNumber,
                     options.release ? QStringLiteral(" against release %1").arg(options.release->name) : QString(),
                     QLatin1String(checkPasses(findings, strict) ? "PASS" : "FAIL"),
                     plural(countOf(findings, true), "error"), plural(countOf(findings, false), "warning"),
                     QLatin1String(strict ? " (strict: warnings fail)" : ""));
    return text.toUtf8();
}

QByteArray checkJson(const Report &report, const QVector<Finding> &findings, const CheckOptions &options)
{
    const bool strict = options.strict;
    QJsonArray list;
    for (const Finding &finding : findings)
        list.append(QJsonObject{{"id", finding.id},
                                {"severity", finding.error ? "error" : "warning"},
                                {"message", finding.message},
                                {"data", finding.data}});
    QJsonObject document = jsonHeader(report);
    document.insert("identity",
                    QJsonObject{{"model", report.identity.model}, {"serialNumber", report.identity.serialNumber}});
    document.insert("checked", report.collected.toUTC().toString(Qt::ISODate));
    document.insert("check", QJsonObject{{"verdict", checkPasses(findings, strict) ? "pass" : "fail"},
                                         {"strict", strict},
                                         {"profile", options.release ? options.release->name : QJsonValue()},
                                         {"findings", list}});
    return QJsonDocument(document).toJson(QJsonDocument::Indented);
}
