#include "OutputFile.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace {

QString systemError(const QString &what, const QString &path)
{
    return QStringLiteral("cannot %1 %2: %3").arg(what, path, std::strerror(errno));
}

bool writeAll(int fd, const QByteArray &content)
{
    qint64 written = 0;
    while (written < content.size()) {
        const ssize_t count = ::write(fd, content.constData() + written, static_cast<size_t>(content.size() - written));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        written += count;
    }
    return true;
}

} // namespace

OutputFile::OutputFile(const QString &path) : path(path)
{
    const QFileInfo target(path);
    name = QFile::encodeName(target.fileName());
    folderFd = ::open(QFile::encodeName(target.absolutePath()).constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (name.isEmpty() || folderFd < 0)
        error = systemError(QStringLiteral("write to the folder of"), path);
}

OutputFile::~OutputFile()
{
    if (folderFd >= 0)
        ::close(folderFd);
}

bool OutputFile::write(const QByteArray &content, QString &writeError)
{
    const QByteArray temporary = "." + name + ".tmp-" + QByteArray::number(::getpid());
    const int fd = ::openat(folderFd, temporary.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        writeError = systemError(QStringLiteral("create a temporary file beside"), path);
        return false;
    }
    const bool written = writeAll(fd, content) && ::fsync(fd) == 0;
    const int savedErrno = errno;
    ::close(fd);
    if (!written || ::renameat(folderFd, temporary.constData(), folderFd, name.constData()) != 0) {
        if (written)
            writeError = systemError(QStringLiteral("rename the temporary file to"), path);
        else {
            errno = savedErrno;
            writeError = systemError(QStringLiteral("write"), path);
        }
        ::unlinkat(folderFd, temporary.constData(), 0);
        return false;
    }
    return true;
}
