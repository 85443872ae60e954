// Where a report or a capture goes: standard output ("-", or no path), or a file written whole or not
// at all. A file's content goes to a temporary file beside the target, which then takes the target's
// place in one rename, so that a reader never sees half of it. Only a regular file is ever replaced: a
// target that is a symbolic link, a device, a FIFO, a socket or a folder is refused and left as it is.
// Every failure is told as one line that names the target and the reason.
#ifndef RFSYSINFO_OUTPUTFILE_H
#define RFSYSINFO_OUTPUTFILE_H

#include <QByteArray>
#include <QString>

class Destination
{
public:
    // `option` names the target in messages ("--output"); `standardOutput` is the report's descriptor,
    // -1 when standard output was closed. A file's target is checked now, so that a run that could
    // not write it is refused before it starts; its folder is opened again for the write, and only then.
    // A file replaced keeps its mode; with `ownerOnly` (a capture that holds serial numbers), group and
    // others may not even read it.
    Destination(const char *option, const QString &path, int standardOutput, bool ownerOnly = false);

    // Empty when the destination can be written.
    QString openError() const { return error; }
    // Writes everything, or says why not.
    bool write(const QByteArray &content, QString &writeError) const;
    bool toStandardOutput() const { return path.isEmpty() || path == QLatin1String("-"); }

private:
    bool replaceFile(const QByteArray &content, QString &reason) const;
    QString failure(const QString &reason) const;

    const char *option;
    QString path;
    int standardOutput;
    bool ownerOnly;
    QByteArray folder, name;
    QString error;
};

// Writes all of `content` to `fd`; false with errno when it cannot.
bool writeAll(int fd, const QByteArray &content);

#endif // RFSYSINFO_OUTPUTFILE_H
