// A file that is written whole or not at all: the content goes to a temporary file beside the target,
// which then takes the target's place in one rename, so that a reader never sees half of it. Only a
// regular file is ever replaced: a target that is a symbolic link, a device, a FIFO, a socket or a
// folder is refused and left as it is.
#ifndef RFSYSINFO_OUTPUTFILE_H
#define RFSYSINFO_OUTPUTFILE_H

#include <QByteArray>
#include <QString>

#include <memory>

class OutputFile
{
public:
    // Checks the target now, so that a run that could not write it is refused before it starts; the
    // target's folder is opened again for the write, and open only then.
    explicit OutputFile(const QString &path);

    // Empty when the folder opened and the target may be replaced.
    QString openError() const { return error; }

    bool write(const QByteArray &content, QString &writeError);

private:
    int openFolder() const;
    bool replaceIn(int folderFd, const QByteArray &content, QString &writeError);

    QByteArray folder, name;
    QString error;
};

// Writes all of `content` to `fd`; false with errno when it cannot.
bool writeAll(int fd, const QByteArray &content);

// Where a report or a capture goes: a file written as above, or standard output ("-", or no path).
// Every failure is told as one line that names the target and the reason.
class Destination
{
public:
    // `option` names the target in messages ("--output"); `standardOutput` is the report's descriptor,
    // -1 when standard output was closed.
    Destination(const char *option, const QString &path, int standardOutput);

    // Empty when the destination can be written.
    QString openError() const;
    // Writes everything, or says why not.
    bool write(const QByteArray &content, QString &error) const;
    bool toStandardOutput() const;

private:
    QString failure(const QString &reason) const;

    const char *option;
    QString path;
    int standardOutput;
    std::unique_ptr<OutputFile> file;
};

#endif // RFSYSINFO_OUTPUTFILE_H
