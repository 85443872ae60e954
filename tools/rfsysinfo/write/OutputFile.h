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
    // Opens the target's folder now, so that the file can be written later from inside a private
    // device root, where the folder is no longer reachable by its path; and refuses a target that is
    // no regular file.
    explicit OutputFile(const QString &path);
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;
    ~OutputFile();

    // Empty when the folder opened and the target may be replaced.
    QString openError() const { return error; }

    bool write(const QByteArray &content, QString &writeError);

private:
    QByteArray name;
    int folderFd = -1;
    QString error;
};

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
