// rfsysinfo: reports everything librfSystemInfo answers, as text or JSON, on this instrument, on a
// copied device tree or on a capture; and captures a device's state into one archive.
#include "CaptureArchive.h"
#include "DeviceRoot.h"
#include "DeviceState.h"
#include "MetricsOutput.h"
#include "OutputFile.h"
#include "ReportCheck.h"
#include "ReportOutput.h"
#include "SystemReport.h"
#include "devicePaths.h"

#include <rfSystem_Info.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int exitReport = 0;
constexpr int exitFailure = 1;
constexpr int exitUsage = 2;
constexpr int exitDeviceRoot = 3;

struct Settings
{
    bool json = false;
    bool sanitize = false;
    bool verbose = false;
    bool allowTools = false;
    QString deviceTree; // a folder, or a capture archive
    QString capture;
    QString output; // empty: standard output
    QStringList sections;
    bool check = false;
    bool metrics = false;
    bool strict = false;
    int maxCalibrationAgeDays = -1;
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
    const QCommandLineOption rootOption("root",
                                        "Report on a copied device tree (for example a backup of an instrument) "
                                        "or on a capture archive made with --capture, seen read-only.",
                                        "DIR|CAPTURE");
    const QCommandLineOption allowToolsOption("allow-tools", "With --root DIR: run the identity tools of the tree.");
    const QCommandLineOption captureOption(
        "capture", "Write the device's state (every file the library reads, the identity tools' answers) to FILE.",
        "FILE");
    const QCommandLineOption sanitizeOption("sanitize", "Replace every serial number by " + serialPlaceholder + ".");
    const QCommandLineOption sectionOption("section", "Report only this section (repeatable).", "NAME");
    const QCommandLineOption checkOption("check",
                                         "Judge the report: findings and a verdict (exit status 1 on an error).");
    const QCommandLineOption strictOption("strict", "With --check: warnings fail too.");
    const QCommandLineOption ageOption("max-calibration-age",
                                       "With --check: warn about dated calibration older than DAYS days.", "DAYS");
    const QCommandLineOption metricsOption("metrics", "Print the report in Prometheus' text exposition format.");
    const QCommandLineOption outputOption("output", "Write the report to FILE, atomically, instead of standard output.",
                                          "FILE");
    const QCommandLineOption verboseOption("verbose", "Show the library's own messages on standard error.");
    parser.addOptions({jsonOption, rootOption, allowToolsOption, captureOption, sanitizeOption, sectionOption,
                       checkOption, strictOption, ageOption, metricsOption, outputOption, verboseOption});

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
    settings.capture = parser.value(captureOption);
    settings.sections = parser.values(sectionOption);
    settings.check = parser.isSet(checkOption);
    settings.metrics = parser.isSet(metricsOption);
    settings.strict = parser.isSet(strictOption);
    settings.output = parser.value(outputOption);
    bool isNumber = true;
    if (parser.isSet(ageOption))
        settings.maxCalibrationAgeDays = parser.value(ageOption).toInt(&isNumber);
    if (!isNumber || (parser.isSet(ageOption) && settings.maxCalibrationAgeDays < 0)) {
        error = "--max-calibration-age takes a number of days, not '" + parser.value(ageOption) + "'";
        return false;
    }
    for (const QString &section : settings.sections) {
        if (!reportSectionNames().contains(section)) {
            error = "unknown section '" + section + "' (sections: " + reportSectionNames().join(", ") + ")";
            return false;
        }
    }
    if (parser.isSet(captureOption) && (settings.json || !settings.sections.isEmpty() || settings.check ||
                                        settings.metrics || parser.isSet(outputOption))) {
        error = "--capture takes the whole device and prints no report: it goes with no other output option";
        return false;
    }
    if ((settings.check || settings.metrics) && !settings.sections.isEmpty()) {
        error = "--check and --metrics take the whole report: they do not go with --section";
        return false;
    }
    if (settings.metrics && (settings.check || settings.json)) {
        error = "--metrics is a format of its own: it goes with neither --check nor --json";
        return false;
    }
    if ((settings.strict || parser.isSet(ageOption)) && !settings.check) {
        error = "--strict and --max-calibration-age go with --check";
        return false;
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

bool enterDeviceRoot(const QString &tree, const QString &source, QString &error)
{
    try {
        deviceroot::Options options;
        options.deviceTree = QFile::encodeName(tree).toStdString();
        deviceroot::enter(options);
        return true;
    } catch (const deviceroot::SetupError &setupError) {
        // A tree's own faults are named by the device root with the tree's path.
        error = tree.isEmpty() ? QStringLiteral("cannot read %1: %2").arg(source, setupError.what())
                               : QString::fromLocal8Bit(setupError.what());
        return false;
    }
}

bool removeTools(const QStringList &tools, QString &error)
{
    for (const QString &tool : tools) {
        if (::unlink(QFile::encodeName(tool).constData()) != 0 && errno != ENOENT) {
            error = QStringLiteral("cannot keep %1 from running: %2").arg(tool, std::strerror(errno));
            return false;
        }
    }
    return true;
}

// Enters a device root that shows the copied tree. The machine's own identity tools never answer for
// the tree: where the tree has none, the root has none either.
bool enterDeviceTree(const Settings &settings, QString &error)
{
    const QString tree = QFileInfo(settings.deviceTree).absoluteFilePath();
    const std::string treePath = QFile::encodeName(tree).toStdString();
    // Decided on the host, where the tree stands at its own path (its links resolved inside it).
    QStringList foreignTools;
    for (const QString &tool : identityToolPaths())
        if (!deviceroot::treeHolds(treePath, QFile::encodeName(tool).toStdString()))
            foreignTools << tool;
    // An empty device is possible (and then reported), but more often the wrong folder was given.
    bool holdsAny = foreignTools.size() < identityToolPaths().size();
    for (const QString &path : capturedFilePaths())
        holdsAny = holdsAny || deviceroot::treeHolds(treePath, QFile::encodeName(path).toStdString());
    if (!holdsAny && QFileInfo(tree).isDir())
        std::fprintf(stderr, "rfsysinfo: warning: %s holds none of the files the library reads\n",
                     qPrintable(settings.deviceTree));
    return enterDeviceRoot(tree, QStringLiteral("the device tree %1").arg(settings.deviceTree), error) &&
           removeTools(foreignTools, error);
}

// Enters an empty device root and puts the captured state into it.
std::optional<DeviceState> enterCapture(const Settings &settings, QString &error)
{
    const int fd = ::open(QFile::encodeName(settings.deviceTree).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = QStringLiteral("cannot read the capture %1: %2").arg(settings.deviceTree, std::strerror(errno));
        return std::nullopt;
    }
    QString refusal;
    std::optional<DeviceState> state = readCaptureArchive(fd, refusal);
    ::close(fd);
    if (!state) {
        error = QStringLiteral("refused the capture %1: %2").arg(settings.deviceTree, refusal);
        return std::nullopt;
    }
    const QString source = QStringLiteral("the capture %1").arg(settings.deviceTree);
    if (!enterDeviceRoot({}, source, error) || !applyDeviceState(*state, error))
        return std::nullopt;
    return state;
}

bool writeReport(int fd, const QByteArray &report)
{
    QFile out;
    return out.open(fd, QIODevice::WriteOnly, QFileDevice::AutoCloseHandle) && out.write(report) == report.size();
}

// The time a capture records: now, or SOURCE_DATE_EPOCH where it is set, so that two captures of an
// unchanged device can be made byte for byte the same.
QDateTime captureTime()
{
    bool isNumber = false;
    const qint64 fixed = qEnvironmentVariable("SOURCE_DATE_EPOCH").toLongLong(&isNumber);
    return isNumber ? QDateTime::fromSecsSinceEpoch(fixed, Qt::UTC) : QDateTime::currentDateTimeUtc();
}

// The serial numbers a capture must not carry: the inventory's and whatever a tool answered for the
// serial number field.
QStringList serialNumbersOf(rfSystemInfo &info, const DeviceState &state)
{
    ReportOptions inventoryOnly;
    inventoryOnly.sections = QStringList{QStringLiteral("inventory")};
    QStringList serials = serialNumbersIn(collectReport(info, inventoryOnly));
    for (const IdentityAnswer &answer : state.answers)
        if (answer.argument == QLatin1String(rfsi::paths::productSerialField) && !isMarkerText(answer.output))
            serials << answer.output;
    return serials;
}

int capture(const Settings &settings, OutputFile &output, bool askTools, int reportFd)
{
    rfSystemInfo &info = *rfSystemInfo::param();
    DeviceState state = readDeviceState(info, askTools);
    CaptureHeader header{RFSI_VERSION, captureTime(), settings.deviceTree, settings.sanitize};
    if (settings.sanitize) {
        const QStringList serials = serialNumbersOf(info, state);
        replaceSerials(state, serials, serialPlaceholder);
        for (const QString &serial : serials)
            header.sourceTree.replace(serial, serialPlaceholder);
    }
    const QByteArray archive = captureArchive(state, header);
    QString error;
    if (!output.write(archive, error))
        return fail(exitFailure, error);
    int copied = 0;
    for (const DeviceNode &file : state.files)
        copied += file.kind == NodeKind::File;
    const QString summary =
        QStringLiteral("captured %1 files and %2 answers of the identity tools into %3 (%4 bytes)\n")
            .arg(copied)
            .arg(state.answers.size())
            .arg(settings.capture)
            .arg(archive.size());
    writeReport(reportFd, summary.toUtf8());
    return exitReport;
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
    // Opened here: inside a device root the output's folder is out of reach.
    std::unique_ptr<OutputFile> captureFile, outputFile;
    for (auto [path, file] : {std::pair{&settings.capture, &captureFile}, std::pair{&settings.output, &outputFile}}) {
        if (path->isEmpty())
            continue;
        *file = std::make_unique<OutputFile>(*path);
        if (!(*file)->openError().isEmpty())
            return fail(exitFailure, (*file)->openError());
    }

    // The identity tools answer on this instrument, for a tree only when allowed, and for a capture
    // as they answered when it was made.
    bool toolsRun = true;
    const bool replay = !settings.deviceTree.isEmpty() && QFileInfo(settings.deviceTree).isFile();
    if (replay) {
        const std::optional<DeviceState> replayed = enterCapture(settings, error);
        if (!replayed)
            return fail(exitDeviceRoot, error);
        toolsRun = replayed->toolsAsked;
        // A sanitized capture gives sanitized reports: what it replaced is not there to show.
        settings.sanitize = settings.sanitize || replayed->sanitized;
    } else if (!settings.deviceTree.isEmpty()) {
        if (!enterDeviceTree(settings, error))
            return fail(exitDeviceRoot, error);
        toolsRun = settings.allowTools;
        // A capture records what the tree holds; a report must not run what it was not allowed to.
        if (!captureFile && !toolsRun && !removeTools(identityToolPaths(), error))
            return fail(exitDeviceRoot, error);
    }
    // From here on, a copied tree's programs may run: none of them gets a capability.
    if (!settings.deviceTree.isEmpty()) {
        try {
            deviceroot::dropPrivileges();
        } catch (const deviceroot::SetupError &setupError) {
            return fail(exitDeviceRoot, QString::fromLocal8Bit(setupError.what()));
        }
    }
    if (captureFile)
        return capture(settings, *captureFile, toolsRun, reportFd);

    ReportOptions options;
    options.sections = settings.sections;
    options.identityToolsRun = toolsRun;
    // One report, collected once; every format renders it. The check judges it before serial numbers
    // are replaced, since a replaced serial hides a fallback.
    QVector<ReportSection> report = collectReport(*rfSystemInfo::param(), options);
    CheckOptions checkOptions;
    checkOptions.maxCalibrationAgeDays = settings.maxCalibrationAgeDays;
    checkOptions.strict = settings.strict;
    const QVector<Finding> findings =
        settings.check || settings.metrics ? checkReport(report, checkOptions) : QVector<Finding>();
    if (settings.sanitize)
        sanitizeReport(report);

    const ReportHeader header{RFSI_VERSION, settings.deviceTree, replay, settings.sanitize};
    QByteArray output;
    if (settings.metrics)
        output = metricsReport(report, findings, settings.strict);
    else if (settings.check)
        output =
            settings.json ? checkJson(header, findings, settings.strict) : checkText(header, findings, settings.strict);
    else
        output = settings.json ? jsonReport(header, report) : textReport(header, report);
    std::fflush(stdout); // the library's own lines, before the report is complete
    if (outputFile) {
        if (!outputFile->write(output, error))
            return fail(exitFailure, error);
    } else if (!writeReport(reportFd, output)) {
        return fail(exitFailure, QStringLiteral("cannot write the report: %1").arg(std::strerror(errno)));
    }
    return settings.check && !checkPasses(findings, settings.strict) ? exitFailure : exitReport;
}
