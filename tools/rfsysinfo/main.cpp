// rfsysinfo: reports everything librfSystemInfo answers, as text or JSON, on this instrument or on a
// copied device tree.
#include "DeviceRoot.h"
#include "ReportOutput.h"
#include "SystemReport.h"

#include <rfSystem_Info.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int exitReport = 0;
constexpr int exitUsage = 2;
constexpr int exitDeviceRoot = 3;

// The identity tools a copied tree may hold. They are programs of another machine.
const char *const identityTools[] = {"/bin/getSicutil", "/usr/bin/sicutil"};

struct Settings
{
    bool json = false;
    bool sanitize = false;
    bool verbose = false;
    bool allowTools = false;
    QString deviceTree;
    QStringList sections;
};

int fail(int status, const QString &message)
{
    std::fprintf(stderr, "rfsysinfo: %s\n", qPrintable(message));
    return status;
}

// Parses the command line; exits for --help and --version, returns false (with `error`) on misuse.
bool parseSettings(const QCoreApplication &app, Settings &settings, QString &error)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Reports the instrument's system information: identity, board inventory, RF module revisions, FPGA "
        "banks, DSP images, temperature and calibration files.\n\nSections: " +
        reportSectionNames().join(", "));
    const QCommandLineOption helpOption = parser.addHelpOption();
    const QCommandLineOption versionOption = parser.addVersionOption();
    const QCommandLineOption jsonOption("json", "Print one JSON document instead of text.");
    const QCommandLineOption rootOption(
        "root", "Report on a copied device tree (for example a backup of an instrument), seen read-only.", "DIR");
    const QCommandLineOption allowToolsOption("allow-tools", "With --root: run the identity tools of the tree.");
    const QCommandLineOption sanitizeOption("sanitize", "Replace every serial number by " + serialPlaceholder + ".");
    const QCommandLineOption sectionOption("section", "Report only this section (repeatable).", "NAME");
    const QCommandLineOption verboseOption("verbose", "Show the library's own messages on standard error.");
    parser.addOptions({jsonOption, rootOption, allowToolsOption, sanitizeOption, sectionOption, verboseOption});

    if (!parser.parse(app.arguments())) {
        error = parser.errorText();
        return false;
    }
    if (parser.isSet(helpOption))
        parser.showHelp(exitReport);
    if (parser.isSet(versionOption))
        parser.showVersion();
    if (!parser.positionalArguments().isEmpty()) {
        error = "unexpected argument '" + parser.positionalArguments().first() + "'";
        return false;
    }
    settings.json = parser.isSet(jsonOption);
    settings.sanitize = parser.isSet(sanitizeOption);
    settings.verbose = parser.isSet(verboseOption);
    settings.allowTools = parser.isSet(allowToolsOption);
    settings.deviceTree = parser.value(rootOption);
    settings.sections = parser.values(sectionOption);
    for (const QString &section : settings.sections) {
        if (!reportSectionNames().contains(section)) {
            error = "unknown section '" + section + "' (sections: " + reportSectionNames().join(", ") + ")";
            return false;
        }
    }
    return true;
}

void dropDebugLines(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type != QtDebugMsg)
        std::fprintf(stderr, "%s\n", qPrintable(message));
}

// The library prints its own messages (the board description's failure lines on standard output,
// the command runner's debug lines): they must not mix with the report. Returns the descriptor that
// the report is written to, the original standard output.
int separateReportFromLibraryOutput(bool verbose)
{
    const int reportFd = ::dup(STDOUT_FILENO);
    const int libraryFd = verbose ? ::dup(STDERR_FILENO) : ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (reportFd < 0 || libraryFd < 0 || ::dup2(libraryFd, STDOUT_FILENO) < 0)
        return -1;
    ::close(libraryFd);
    if (!verbose)
        qInstallMessageHandler(dropDebugLines);
    return reportFd;
}

bool enterDeviceTree(const Settings &settings, QString &error)
{
    const QString tree = QFileInfo(settings.deviceTree).absoluteFilePath();
    // Decided on the host, where the tree stands at its own path.
    QStringList treeTools;
    for (const char *tool : identityTools)
        if (QFileInfo::exists(tree + tool))
            treeTools << tool;
    try {
        deviceroot::Options options;
        options.deviceTree = QFile::encodeName(tree).toStdString();
        deviceroot::enter(options);
    } catch (const deviceroot::SetupError &setupError) {
        error = QStringLiteral("cannot read the device tree %1: %2").arg(settings.deviceTree, setupError.what());
        return false;
    }
    // The tree's tools run only when allowed; where the tree has none, the machine's own must not
    // answer for it.
    for (const char *tool : identityTools) {
        if (settings.allowTools && treeTools.contains(QLatin1String(tool)))
            continue;
        if (::unlink(tool) != 0 && errno != ENOENT) {
            error = QStringLiteral("cannot keep %1 from running: %2").arg(tool, std::strerror(errno));
            return false;
        }
    }
    return true;
}

bool writeReport(int fd, const QByteArray &report)
{
    QFile out;
    return out.open(fd, QIODevice::WriteOnly, QFileDevice::AutoCloseHandle) && out.write(report) == report.size();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("rfsysinfo");
    QCoreApplication::setApplicationVersion(RFSI_VERSION);

    Settings settings;
    QString error;
    if (!parseSettings(app, settings, error))
        return fail(exitUsage, error + " (see --help)");

    const int reportFd = separateReportFromLibraryOutput(settings.verbose);
    if (reportFd < 0)
        return fail(exitUsage, QStringLiteral("cannot set up the output: %1").arg(std::strerror(errno)));
    if (!settings.deviceTree.isEmpty() && !enterDeviceTree(settings, error))
        return fail(exitDeviceRoot, error);

    ReportOptions options;
    options.sections = settings.sections;
    options.identityToolsRun = settings.deviceTree.isEmpty() || settings.allowTools;
    QVector<ReportSection> report = collectReport(*rfSystemInfo::param(), options);
    if (settings.sanitize)
        sanitizeReport(report);

    const ReportHeader header{RFSI_VERSION, settings.deviceTree, settings.sanitize};
    const QByteArray output = settings.json ? jsonReport(header, report) : textReport(header, report);
    std::fflush(stdout); // the library's own lines, before the report is complete
    if (!writeReport(reportFd, output))
        return fail(1, QStringLiteral("cannot write the report: %1").arg(std::strerror(errno)));
    return exitReport;
}
