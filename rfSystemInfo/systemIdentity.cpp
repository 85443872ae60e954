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

#include <utility>

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

// Each tool leads a process group of its own, so that whatever it starts can be stopped with it:
// when the run ends, however it ends (an output too large to hold throws), the tool and everything
// it started go, also what still holds its output open.
class ToolProcess : public QProcess
{
public:
    void startReadOnly(const QString &program, const QStringList &arguments)
    {
        start(program, arguments, QIODevice::ReadOnly);
        processGroup = processId(); // zero again once the tool has ended
    }

    ~ToolProcess() override
    {
        if (processGroup > 0)
            ::kill(static_cast<pid_t>(-processGroup), SIGKILL);
        close();
    }

protected:
    void setupChildProcess() override { ::setsid(); }

private:
    qint64 processGroup = 0;
};

// Everything the tool writes on standard output until it ends or the time-out passes. It is read
// while the tool runs, so that a full pipe never stalls a tool that prints much.
QByteArray collectOutput(QProcess &process)
{
    const QDeadlineTimer deadline(toolTimeoutMs);
    QByteArray output;
    while (process.state() != QProcess::NotRunning) {
        if (!process.waitForReadyRead(static_cast<int>(deadline.remainingTime())) && deadline.hasExpired())
            break;
        output += process.readAll();
    }
    // What arrived with the tool's end.
    output += process.readAll();
    return output;
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
    process.startReadOnly(programPath, arguments);
    QString output = rfsi::textUpToNul(collectOutput(process));
    // In place: a tool may print tens of megabytes.
    return std::move(output).simplified();
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
