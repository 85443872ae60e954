// A file that is written whole or not at all: the content goes to a temporary file beside the target,
// which then takes the target's place in one rename, so that a reader never sees half of it.
#ifndef RFSYSINFO_OUTPUTFILE_H
#define RFSYSINFO_OUTPUTFILE_H

#include <QByteArray>
#include <QString>

class OutputFile
{
public:
    // Opens the target's folder now, so that the file can be written later from inside a private
    // device root, where the folder is no longer reachable by its path.
    explicit OutputFile(const QString &path);
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;
    ~OutputFile();

    // Empty when the folder opened.
    QString openError() const { return error; }

    bool write(const QByteArray &content, QString &writeError);

private:
    QString path;
    QByteArray name;
    int folderFd = -1;
    QString error;
};

#endif // RFSYSINFO_OUTPUTFILE_H
