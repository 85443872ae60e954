// Product identity: the model and serial number come from the identity tools on the device, the
// versions from the package and from constants of this library.
#include "rfSystem_Info.h"

#include "VersionInfo.h"
#include "deviceFile.h"

#include <QDeadlineTimer>
#include <QDebug>
#include <QFile>
#include <QProcess>
#include <QStringList>

#include <algorithm>

#include <signal.h>
#include <unistd.h>

namespace {

// The identity tools, asked in this order.
const char *const identityTools[] = {"/bin/getSicutil", "/usr/bin/sicutil"};
constexpr char productNameField[] = "ProductName";
constexpr char productSerialField[] = "ProductSerialNumber";
constexpr char fallbackModel[] = "KV720";
constexpr char fallbackSerial[] = "SERIALNOTSET";
constexpr char rfSerial[] = "RFSERIAL";
constexpr char uiVersion[] = "5.010.005a";

// Programs of the sicutil family take the field behind these options.
constexpr char sicutilFamily[] = "icutil";
const char *const sicutilOptions[] = {"-r", "-sol", "5"};
constexpr int toolTimeoutMs = 8000;
// Far longer than any identity field; a tool that prints more is cut off there instead of filling
// the caller's memory for as long as the time-out lasts.
constexpr qint64 toolOutputLimit = 1 << 20;

// Each tool leads a process group of its own, so that whatever it starts can be stopped with it.
class ToolProcess : public QProcess
{
protected:
    void setupChildProcess() override { ::setsid(); }
};

// What the tool writes on standard output until it ends, the time-out passes or the limit is reached.
QByteArray collectOutput(QProcess &process)
{
    const QDeadlineTimer deadline(toolTimeoutMs);
    QByteArray output;
    while (process.state() != QProcess::NotRunning && output.size() <= toolOutputLimit) {
        if (!process.waitForReadyRead(static_cast<int>(deadline.remainingTime())) && deadline.hasExpired())
            break;
        output += process.read(toolOutputLimit + 1 - output.size());
    }
    // What arrived with the tool's end.
    output += process.read(std::max<qint64>(0, toolOutputLimit - output.size()));
    return output.left(static_cast<int>(toolOutputLimit));
}

QStringList toolArguments(const QString &program, const QString &argument)
{
    QStringList arguments;
    if (program.indexOf(QLatin1String(sicutilFamily), 0, Qt::CaseSensitive) != -1) {
        for (const char *option : sicutilOptions)
            arguments << QString::fromLatin1(option);
    }
    arguments << argument;
    return arguments;
}

// Whether starting `program` can succeed. A bare name is left to QProcess, which searches PATH.
bool canRun(const QString &program)
{
    if (!program.contains(QLatin1Char('/')))
        return true;
    const QByteArray path = QFile::encodeName(program);
    return rfsi::isRegularFile(program) && ::access(path.constData(), X_OK) == 0;
}

// The first identity tool's non-empty answer for `field`, else `fallback`.
QString askIdentityTools(rfSystemInfo &info, const char *field, const std::string &fallback)
{
    for (const char *tool : identityTools) {
        const QString answer = info.executeCmd(tool, field);
        if (!answer.isEmpty())
            return answer;
    }
    return QString::fromStdString(fallback);
}

} // namespace

QString rfSystemInfo::executeCmd(std::string program, std::string argument)
{
    const QString programPath = QString::fromStdString(program);
    const QStringList arguments = toolArguments(programPath, QString::fromStdString(argument));
    qDebug() << programPath << arguments;

    // A path that cannot be run answers at once, as a failed start would, without forking.
    if (!canRun(programPath))
        return {};
    ToolProcess process;
    // Standard input is never written and standard error never read: both go nowhere rather than
    // through pipes.
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(programPath, arguments, QIODevice::ReadOnly);
    const qint64 processGroup = process.processId();
    const QString output = rfsi::textUpToNul(collectOutput(process));
    // The tool and everything it started end here, also what still holds its output open.
    if (processGroup > 0)
        ::kill(static_cast<pid_t>(-processGroup), SIGKILL);
    process.close();
    return output.simplified();
}

QString rfSystemInfo::getSystemModelSystemCmd(std::string fallback)
{
    return askIdentityTools(*this, productNameField, fallback);
}

QString rfSystemInfo::getSystemModel()
{
    return getSystemModelSystemCmd(fallbackModel);
}

QString rfSystemInfo::getSystemSerialSystemCmd(std::string fallback)
{
    return askIdentityTools(*this, productSerialField, fallback);
}

QString rfSystemInfo::getSystemSerial()
{
    return getSystemSerialSystemCmd(fallbackSerial);
}

QString rfSystemInfo::checkSystemRfSerial()
{
    return QString::fromLatin1(rfSerial);
}

QString rfSystemInfo::checkSystemFirmwareVersion()
{
    return VersionInfo::getPkgVersion();
}

QString rfSystemInfo::checkSystemUIVersion()
{
    return QString::fromLatin1(uiVersion);
}
