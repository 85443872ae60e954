// What changed between two reports of an instrument: before and after a repair, or a customer's unit
// against a good one. Each side is a capture, a device tree or a saved JSON report; the reports are
// compared key by key, whatever names the tool or the source left out.
#ifndef RFSYSINFO_REPORTDIFF_H
#define RFSYSINFO_REPORTDIFF_H

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QVector>

#include <optional>

struct DiffSide
{
    QString kind; // "capture", "tree", "report" or "instrument"
    QString name; // as given; empty for the instrument
    QJsonObject sections;
    QString captured; // a capture's (or a saved replay's) time of capture
};

// The report of a side: `path` a capture, a device tree or a JSON report written by rfsysinfo --json;
// empty for this instrument. Captures and trees are read by this program run again, each in a private
// device root of its own; `allowTools` runs a tree's identity tools. Nothing, with `error`, when the
// side cannot be read.
std::optional<DiffSide> readDiffSide(const QString &path, bool allowTools, QString &error);

// --sanitize for both sides at once: a serial number of either side is withheld on both, and so are
// the sides' names.
void sanitizeSides(DiffSide &before, DiffSide &after);

struct Difference
{
    QString section, key;     // "fpga", "banks.FPGA_BANK_2_VER"; images as "images[2].name"
    QJsonValue before, after; // undefined: absent on that side
};

// Key by key, in report order (numbers in keys in numeric order), `sections` only when not empty.
QVector<Difference> reportDifferences(const DiffSide &before, const DiffSide &after, const QStringList &sections);

QByteArray diffText(const DiffSide &before, const DiffSide &after, const QVector<Difference> &differences);
QByteArray diffJson(const DiffSide &before, const DiffSide &after, const QVector<Difference> &differences);

#endif // RFSYSINFO_REPORTDIFF_H
