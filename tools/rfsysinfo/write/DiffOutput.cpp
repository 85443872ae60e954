#include "write/DiffOutput.h"

#include "model/ReportJson.h"
#include "write/TerminalText.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>

namespace {

QJsonObject sideJson(const DiffSide &side)
{
    return {{"kind", side.kind},
            {"name", side.name.isEmpty() ? QJsonValue() : side.name},
            {"captured", side.captured.isEmpty() ? QJsonValue() : side.captured}};
}

QString sideText(const DiffSide &side)
{
    if (side.kind == QLatin1String("instrument"))
        return QStringLiteral("this instrument");
    const QString kind = side.kind == QLatin1String("tree") ? QStringLiteral("device tree") : side.kind;
    return QStringLiteral("%1 %2%3").arg(
        kind, side.name, side.captured.isEmpty() ? QString() : QStringLiteral(" (captured %1)").arg(side.captured));
}

} // namespace

QByteArray diffText(const DiffSide &before, const DiffSide &after, const QVector<Difference> &differences)
{
    QString text;
    for (const Difference &difference : differences)
        text += terminalText(QStringLiteral("%1 %2: %3 -> %4")
                                 .arg(difference.section, difference.key, shownValue(difference.before),
                                      shownValue(difference.after))) +
                QLatin1Char('\n');
    text += terminalText(QStringLiteral("%1 between %2 and %3")
                             .arg(differences.isEmpty()     ? QStringLiteral("no differences")
                                  : differences.size() == 1 ? QStringLiteral("1 difference")
                                                            : QStringLiteral("%1 differences").arg(differences.size()),
                                  sideText(before), sideText(after))) +
            QLatin1Char('\n');
    return text.toUtf8();
}

QByteArray diffJson(const DiffSide &before, const DiffSide &after, const QVector<Difference> &differences)
{
    QJsonArray list;
    for (const Difference &difference : differences)
        list.append(QJsonObject{{"section", difference.section},
                                {"key", difference.key},
                                {"before", difference.before.isUndefined() ? QJsonValue() : difference.before},
                                {"after", difference.after.isUndefined() ? QJsonValue() : difference.after}});
    const QJsonObject document{
        {"tool", "rfsysinfo"},
        {"version", QCoreApplication::applicationVersion()},
        {"diff", QJsonObject{{"before", sideJson(before)}, {"after", sideJson(after)}, {"differences", list}}}};
    return jsonDocumentBytes(document);
}
