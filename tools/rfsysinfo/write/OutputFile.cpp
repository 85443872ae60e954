#include "write/OutputFile.h"

#include "DeviceState.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/random.h>
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
    if (::fstatat(folderFd, name.constData(), &info, AT_SYMLINK_NOFOLLOW) != 0 || S_ISREG(info.st_mode))
        return {};
    return QStringLiteral("it is %1, not a regular file; left as it is").arg(QLatin1String(nodeKindText(info.st_mode)));
}

int openFolder(const QByteArray &folder)
{
    return ::open(folder.constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
}

// A name for the temporary file that no one else in a shared folder can guess beforehand.
QByteArray temporaryName(const QByteArray &name)
{
    unsigned char random[9] = {};
    if (::getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random))
        return {};
    return "." + name + ".tmp-" + QByteArray(reinterpret_cast<const char *>(random), sizeof random).toHex();
}

// The mode the new file takes: a file replaced keeps its own; a new one the usual 0644 (less the
// umask). Where only the owner may read it, group and others lose every permission.
mode_t modeFor(int folderFd, const QByteArray &name, bool ownerOnly)
{
    struct stat info;
    mode_t mode;
    if (::fstatat(folderFd, name.constData(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode)) {
        mode = info.st_mode & 07777;
    } else {
        const mode_t mask = ::umask(0);
        ::umask(mask);
        mode = 0644 & ~mask;
    }
    return ownerOnly ? mode & 07700 : mode;
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

Destination::Destination(const char *option, const QString &path, int standardOutput, bool ownerOnly)
    : option(option), path(path), standardOutput(standardOutput), ownerOnly(ownerOnly)
{
    if (toStandardOutput()) {
        if (standardOutput < 0)
            error = failure(QString::fromLocal8Bit(std::strerror(EBADF)));
        return;
    }
    const QFileInfo target(path);
    name = QFile::encodeName(target.fileName());
    folder = QFile::encodeName(target.absolutePath());
    if (name.isEmpty() || name == "." || name == "..") {
        error = failure(QStringLiteral("it names a folder, not a file"));
        return;
    }
    const int folderFd = openFolder(folder);
    const QString refusal = folderFd < 0 ? systemError("its folder cannot be opened") : targetRefusal(folderFd, name);
    if (folderFd >= 0)
        ::close(folderFd);
    if (!refusal.isEmpty())
        error = failure(refusal);
}

bool Destination::write(const QByteArray &content, QString &writeError) const
{
    QString reason;
    if (!toStandardOutput()) {
        if (replaceFile(content, reason))
            return true;
    } else if (!writeAll(standardOutput, content)) {
        reason = systemError("");
    } else if (::fsync(standardOutput) != 0 && errno != EINVAL && errno != EROFS) {
        // A full disk may show only now, on a file system that writes back late.
        reason = systemError("");
    } else {
        return true;
    }
    writeError = failure(reason);
    return false;
}

bool Destination::replaceFile(const QByteArray &content, QString &reason) const
{
    const int folderFd = openFolder(folder);
    if (folderFd < 0) {
        reason = systemError("its folder cannot be opened");
        return false;
    }
    const QByteArray temporary = temporaryName(name);
    const int fd = temporary.isEmpty()
                       ? -1
                       : ::openat(folderFd, temporary.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    bool replaced = false;
    if (fd < 0) {
        reason = systemError("no temporary file can be made beside it");
    } else {
        const bool written =
            ::fchmod(fd, modeFor(folderFd, name, ownerOnly)) == 0 && writeAll(fd, content) && ::fsync(fd) == 0;
        reason = written ? QString() : systemError("");
        ::close(fd);
        // Looked at again: the target may have been swapped for a link since it was opened.
        if (written && (reason = targetRefusal(folderFd, name)).isEmpty()) {
            replaced = ::renameat(folderFd, temporary.constData(), folderFd, name.constData()) == 0;
            if (!replaced)
                reason = systemError("the temporary file cannot take its place");
        }
        if (!replaced)
            ::unlinkat(folderFd, temporary.constData(), 0);
    }
    ::close(folderFd);
    return replaced;
}

QString Destination::failure(const QString &reason) const
{
    if (toStandardOutput())
        return QStringLiteral("cannot write standard output: %1").arg(reason);
    return QStringLiteral("cannot write %1 %2: %3").arg(QLatin1String(option), path, reason);
}
