#include "ReportOutput.h"

#include <QJsonDocument>

#include <algorithm>

namespace {

constexpr int labelIndent = 2;
constexpr int labelGap = 2;

QString sourceDescription(const ReportHeader &header)
{
    if (header.deviceTree.isEmpty())
        return QStringLiteral("this instrument");
    return (header.capture ? QStringLiteral("capture %1") : QStringLiteral("device tree %1")).arg(header.deviceTree);
}

int widestLabel(const QVector<ReportSection> &report)
{
    int widest = 0;
    for (const ReportSection &section : report)
        for (const ReportLine &line : section.lines)
            widest = std::max(widest, static_cast<int>(line.label.size()));
    return widest;
}

// A text that spans lines keeps its later lines under the first one's column.
QString indentedText(const QString &text, int column)
{
    QString indented = text;
    return indented.replace(QLatin1Char('\n'), QLatin1Char('\n') + QString(column, QLatin1Char(' ')));
}

} // namespace

QByteArray textReport(const ReportHeader &header, const QVector<ReportSection> &report)
{
    QString text = QStringLiteral("rfsysinfo %1: %2%3\n")
                       .arg(header.version, sourceDescription(header),
                            header.sanitized ? QStringLiteral(", serial numbers replaced") : QString());
    const int labelWidth = widestLabel(report) + labelGap;
    for (const ReportSection &section : report) {
        text += QLatin1Char('\n') + section.title + QLatin1Char('\n');
        for (const ReportLine &line : section.lines)
            text += QString(labelIndent, QLatin1Char(' ')) + line.label.leftJustified(labelWidth) +
                    indentedText(line.text, labelIndent + labelWidth) + QLatin1Char('\n');
    }
    return text.toUtf8();
}

QJsonObject jsonHeader(const ReportHeader &header)
{
    return {
        {"tool", "rfsysinfo"},
        {"version", header.version},
        {"deviceTree", header.deviceTree.isEmpty() ? QJsonValue() : QJsonValue(header.deviceTree)},
        {"sanitized", header.sanitized},
    };
}

QByteArray jsonReport(const ReportHeader &header, const QVector<ReportSection> &report)
{
    QJsonObject document = jsonHeader(header);
    for (const ReportSection &section : report)
        document.insert(section.name, section.json);
    return QJsonDocument(document).toJson(QJsonDocument::Indented);
}
