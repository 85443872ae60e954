// Product identity: the model and serial number come from the identity tools on the device, the
// versions from the package and from constants of this library.
#include "rfSystem_Info.h"

#include "VersionInfo.h"
#include "deviceFile.h"
#include "devicePaths.h"
#include "markers.h"

#include "toolRun.h"

#include <QDebug>
#include <QFile>
#include <QStandardPaths>
#include <QStringList>

#include <utility>

#include <unistd.h>

namespace {

using rfsi::paths::fallbackModel;
using rfsi::paths::fallbackSerial;
using rfsi::paths::identityTools;
using rfsi::paths::productNameField;
using rfsi::paths::productSerialField;
constexpr char uiVersion[] = "5.010.005a";

// Programs of the sicutil family take the field behind these options.
constexpr char sicutilFamily[] = "icutil";
const char *const sicutilOptions[] = {"-r", "-sol", "5"};
constexpr int toolTimeoutMs = 8000;

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

// The program as QProcess would start it: a bare name is looked up in PATH and then started by the
// path found (which is also its argv[0]); a name that is not found stays as it is.
QString programToStart(const QString &program)
{
    if (program.contains(QLatin1Char('/')))
        return program;
    const QString found = QStandardPaths::findExecutable(program);
    return found.isEmpty() ? program : found;
}

// Whether starting `program` can succeed.
bool canRun(const QString &program)
{
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
    {
        // The line Qt 5 writes for a path and a list, on Qt 6 too (which would write "QList(...)").
        QDebug line = qDebug() << programPath;
        line.nospace() << '(';
        for (qsizetype i = 0; i < arguments.size(); ++i)
            line << (i ? ", " : "") << arguments[i];
        line << ')';
    }

    // A program that cannot be run answers at once, as a failed start would, without starting anything.
    const QString toStart = programToStart(programPath);
    if (!canRun(toStart))
        return {};
    QList<QByteArray> encodedArguments;
    for (const QString &argument : arguments)
        encodedArguments << argument.toUtf8(); // the bytes the caller gave, whatever its locale
    QString output = rfsi::textUpToNul(rfsi::runTool(QFile::encodeName(toStart), encodedArguments, toolTimeoutMs));
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
    return QString::fromLatin1(rfsi::marker::fixedRfSerial);
}

QString rfSystemInfo::checkSystemFirmwareVersion()
{
    return VersionInfo::getPkgVersion();
}

QString rfSystemInfo::checkSystemUIVersion()
{
    return QString::fromLatin1(uiVersion);
}
