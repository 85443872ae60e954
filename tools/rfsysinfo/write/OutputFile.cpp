#include "write/OutputFile.h"

#include "read/DeviceState.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A reason, without the target: the caller names it.
QString systemError(const char *what)
{
    return *what ? QStringLiteral("%1: %2").arg(QLatin1String(what), std::strerror(errno))
                 : QString::fromLocal8Bit(std::strerror(errno));
}

// Why `name` in `folderFd` must not be replaced; empty when it is a regular file or there is none.
QString targetRefusal(int folderFd, const QByteArray &name)
{
    struct stat info;
    if (::fstatat(folderFd, name.constData(), &info, AT_SYMLINK_NOFOLLOW) != 0)
        return {};
    if (S_ISREG(info.st_mode))
        return {};
    return QStringLiteral("it is %1, not a regular file; left as it is").arg(QLatin1String(nodeKindText(info.st_mode)));
}

} // namespace

bool writeAll(int fd, const QByteArray &content)
{
    qint64 written = 0;
    while (written < content.size()) {
        const ssize_t count = ::write(fd, content.constData() + written, static_cast<size_t>(content.size() - written));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) {
            errno = count == 0 ? EIO : errno;
            return false;
        }
        written += count;
    }
    return true;
}

OutputFile::OutputFile(const QString &path)
{
    const QFileInfo target(path);
    name = QFile::encodeName(target.fileName());
    folder = QFile::encodeName(target.absolutePath());
    if (name.isEmpty() || name == "." || name == "..") {
        error = QStringLiteral("it names a folder, not a file");
        return;
    }
    const int folderFd = openFolder();
    error = folderFd < 0 ? systemError("its folder cannot be opened") : targetRefusal(folderFd, name);
    if (folderFd >= 0)
        ::close(folderFd);
}

int OutputFile::openFolder() const
{
    return ::open(folder.constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
}

bool OutputFile::write(const QByteArray &content, QString &writeError)
{
    const int folderFd = openFolder();
    if (folderFd < 0) {
        writeError = systemError("its folder cannot be opened");
        return false;
    }
    const bool written = replaceIn(folderFd, content, writeError);
    ::close(folderFd);
    return written;
}

bool OutputFile::replaceIn(int folderFd, const QByteArray &content, QString &writeError)
{
    const QByteArray temporary = "." + name + ".tmp-" + QByteArray::number(::getpid());
    const int fd = ::openat(folderFd, temporary.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        writeError = systemError("no temporary file can be made beside it");
        return false;
    }
    const bool written = writeAll(fd, content) && ::fsync(fd) == 0;
    const int savedErrno = errno;
    ::close(fd);
    // Looked at again: the target may have been swapped for a link since it was opened.
    const QString refusal = written ? targetRefusal(folderFd, name) : QString();
    if (!refusal.isEmpty()) {
        writeError = refusal;
        ::unlinkat(folderFd, temporary.constData(), 0);
        return false;
    }
    if (!written || ::renameat(folderFd, temporary.constData(), folderFd, name.constData()) != 0) {
        if (written)
            writeError = systemError("the temporary file cannot take its place");
        else {
            errno = savedErrno;
            writeError = systemError("");
        }
        ::unlinkat(folderFd, temporary.constData(), 0);
        return false;
    }
    return true;
}

Destination::Destination(const char *option, const QString &path, int standardOutput)
    : option(option), path(path), standardOutput(standardOutput)
{
    if (!toStandardOutput())
        file = std::make_unique<OutputFile>(path);
}

bool Destination::toStandardOutput() const
{
    return path.isEmpty() || path == QLatin1String("-");
}

QString Destination::openError() const
{
    if (toStandardOutput())
        return standardOutput < 0 ? failure(QString::fromLocal8Bit(std::strerror(EBADF))) : QString();
    return file->openError().isEmpty() ? QString() : failure(file->openError());
}

bool Destination::write(const QByteArray &content, QString &error) const
{
    QString reason;
    if (!toStandardOutput()) {
        if (file->write(content, reason))
            return true;
    } else if (!writeAll(standardOutput, content)) {
        reason = systemError("");
    } else if (::fsync(standardOutput) != 0 && errno != EINVAL && errno != EROFS) {
        // A full disk may show only now, on a file system that writes back late.
        reason = systemError("");
    } else {
        return true;
    }
    error = failure(reason);
    return false;
}

QString Destination::failure(const QString &reason) const
{
    if (toStandardOutput())
        return QStringLiteral("cannot write standard output: %1").arg(reason);
    return QStringLiteral("cannot write %1 %2: %3").arg(QLatin1String(option), path, reason);
}
