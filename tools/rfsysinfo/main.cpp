// rfsysinfo: reports everything librfSystemInfo answers, as text or JSON, on this instrument, on a
// copied device tree or on a capture; and captures a device's state into one archive.
#include "CaptureArchive.h"
#include "DeviceRoot.h"
#include "DeviceState.h"
#include "devicePaths.h"
#include "judge/ReleaseProfile.h"
#include "judge/ReportCheck.h"
#include "judge/ReportDiff.h"
#include "model/ReportModel.h"
#include "read/DeviceReading.h"
#include "write/CheckOutput.h"
#include "write/DiffOutput.h"
#include "write/MetricsOutput.h"
#include "write/OutputFile.h"
#include "write/ReportOutput.h"
#include "write/TerminalText.h"

#include <rfSystem_Info.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int exitReport = 0;
constexpr int exitFailure = 1; // the check fails
constexpr int exitUsage = 2;
constexpr int exitDeviceRoot = 3; // the device tree or capture cannot be read
constexpr int exitOutput = 4;     // the output cannot be written

constexpr char exitStatuses[] =
    "Exit status: 0 the report was written (and with --check the unit passes; with --diff the sides are "
    "equal); 1 the check fails (with --diff: the sides differ); 2 usage error, or a release profile "
    "refused; 3 the device tree, capture or a side of --diff cannot be read; 4 the output cannot be written "
    "(full disk, closed or broken standard output, a refused or failed --output or --capture target).";

constexpr int longestCalibrationAge = 36500; // a century
constexpr double lowestLimit = -100, highestLimit = 300;

struct Settings
{
    bool json = false;
    bool sanitize = false;
    bool verbose = false;
    bool allowTools = false;
    QString deviceTree; // a folder, or a capture archive
    QString capture;    // "-": standard output
    QString output;     // empty or "-": standard output
    QStringList sections;
    bool check = false;
    bool metrics = false;
    bool nameValue = false;
    bool strict = false;
    bool hardwareOnly = false;
    int maxCalibrationAgeDays = -1;
    std::optional<double> criticalTemperature;
    std::optional<ReleaseProfile> release; // --expect, read before any device root hides its file
    bool diff = false;
    QStringList diffSides; // BEFORE [AFTER]
};

int fail(int status, const QString &message)
{
    // A reason may quote a capture's or a profile's own text: it stays one line, and inert.
    std::fprintf(stderr, "rfsysinfo: %s\n", qPrintable(terminalText(message)));
    return status;
}

// The value of a single-valued option, checked: given once, not empty, and no option in its place.
bool singleValue(const QCommandLineParser &parser, const char *option, QString &value, QString &error)
{
    const QString name = QStringLiteral("--") + option;
    const QStringList values = parser.values(option);
    if (values.size() > 1)
        error = name + " is given more than once";
    else if (!values.isEmpty() && values.front().isEmpty())
        error = name + " needs a value, not an empty one";
    else if (!values.isEmpty() && values.front().startsWith('-') && values.front() != QLatin1String("-"))
        error = QStringLiteral("%1 needs a value, not the option '%2' (write ./%2 for a file of that name)")
                    .arg(name, values.front());
    else {
        value = values.value(0);
        return true;
    }
    return false;
}

// A number within [lowest, highest]: "not a number" and "out of range" are told apart.
std::optional<double> numberOption(const QString &name, const QString &text, double lowest, double highest, bool whole,
                                   QString &error)
{
    static const QRegularExpression wholeNumber(QStringLiteral("^[+-]?[0-9]+$"));
    static const QRegularExpression decimal(QStringLiteral("^[+-]?([0-9]+(\\.[0-9]*)?|\\.[0-9]+)$"));
    if (!(whole ? wholeNumber : decimal).match(text).hasMatch()) {
        error = QStringLiteral("%1 takes %2, not '%3'").arg(name, whole ? "a whole number" : "a number", text);
        return std::nullopt;
    }
    const double number = text.toDouble(); // digits only: no locale matters
    if (number < lowest || number > highest) {
        error = QStringLiteral("%1 %2 is out of range (%3 to %4)").arg(name, text).arg(lowest).arg(highest);
        return std::nullopt;
    }
    return number;
}

// The options that exclude each other, or need another: the first rule broken is told.
bool optionsGoTogether(const Settings &s, bool expecting, QString &error)
{
    bool treeToRun = !s.deviceTree.isEmpty() && !QFileInfo(s.deviceTree).isFile();
    for (const QString &side : s.diffSides)
        treeToRun = treeToRun || QFileInfo(side).isDir();
    const std::pair<bool, const char *> rules[] = {
        {s.diff && (s.check || s.metrics || !s.capture.isEmpty()),
         "--diff is a report of its own: it goes with neither --check, --metrics nor --capture"},
        {s.diff && s.diffSides.size() == 2 && !s.deviceTree.isEmpty(),
         "--diff BEFORE AFTER takes no --root: --root stands for AFTER when it is left out"},
        {s.allowTools && s.deviceTree.isEmpty() && !treeToRun,
         "--allow-tools goes with --root DIR: on this instrument the identity tools always run"},
        {s.allowTools && !treeToRun,
         "--allow-tools goes with a device tree, not a capture: a capture replays the answers it holds"},
        {!s.capture.isEmpty() && (s.json || !s.sections.isEmpty() || s.check || s.metrics || !s.output.isEmpty()),
         "--capture takes the whole device and prints no report: it goes with no other output option"},
        {s.metrics && !s.sections.isEmpty(), "--metrics takes the whole report: it does not go with --section"},
        {s.metrics && (s.check || s.json), "--metrics is a format of its own: it goes with neither --check nor --json"},
        {s.nameValue && (s.check || s.json || s.metrics || s.diff || !s.capture.isEmpty()),
         "--name-value is a format of its own: it goes with no other output option"},
        {(s.strict || s.maxCalibrationAgeDays >= 0) && !s.check, "--strict and --max-calibration-age go with --check"},
        {s.criticalTemperature && !s.check && !s.metrics, "--critical-temperature goes with --check or --metrics"},
        {expecting && !s.check && !s.metrics, "--expect goes with --check or --metrics"},
        {s.hardwareOnly && (!s.check || !expecting), "--hardware-only goes with --check and --expect"},
        {s.hardwareOnly && (s.strict || s.maxCalibrationAgeDays >= 0 || s.criticalTemperature || !s.sections.isEmpty()),
         "--hardware-only judges the release's hardware alone: it goes with no other judgement option"},
    };
    for (const auto &[broken, message] : rules)
        if (broken) {
            error = QString::fromUtf8(message);
            return false;
        }
    return true;
}

// Parses the command line; exits for --help and --version, returns false (with `error`) on misuse.
bool parseSettings(const QCoreApplication &app, Settings &settings, QString &error)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Reports the instrument's system information: identity, board inventory, RF module revisions, FPGA "
        "banks, DSP images, temperature and calibration files.\n\nSections: " +
        reportSectionNames().join(", ") + "\n\n" + exitStatuses +
        "\n\nWhat each marker (NONE, r, 1000, OK(NONE), KV720, ...) means: see rfsysinfo(1), MARKERS.");
    const QCommandLineOption helpOption = parser.addHelpOption();
    const QCommandLineOption versionOption = parser.addVersionOption();
    parser.addOptions({
        {"json", "Print one JSON document instead of text."},
        {"root",
         "Report on a copied device tree (for example a backup of an instrument) or on a capture archive made "
         "with --capture, seen read-only.",
         "DIR|CAPTURE"},
        {"allow-tools", "With --root DIR: run the identity tools of the tree."},
        {"capture",
         "Write the device's state (every file the library reads, the identity tools' answers, the instrument's "
         "software versions) to FILE; - is standard output.",
         "FILE"},
        {"sanitize", "Replace every serial number by " + serialPlaceholder +
                         " and withhold the names of device trees and captures."},
        {"section", "Report only this section (repeatable); with --check: judge only its findings.", "NAME"},
        {"check", "Judge the report: findings and a verdict (exit status 1 on an error)."},
        {"strict", "With --check: warnings fail too."},
        {"max-calibration-age", "With --check: warn about dated calibration older than DAYS days.", "DAYS"},
        {"critical-temperature",
         "With --check or --metrics: judge the sensors by C °C where the inventory gives no critical temperature.",
         "C"},
        {"metrics", "Print the report in Prometheus' text exposition format."},
        {"name-value", "Print the report as name=value lines, a list's values under one name (the inventory format "
                       "of update clients such as Mender)."},
        {"expect",
         "With --check or --metrics: the release PROFILE the unit must carry, a JSON file in the report's shape "
         "reduced to what must hold.",
         "PROFILE"},
        {"hardware-only",
         "With --check --expect: judge only what an update cannot change, the profile's inventory revisions and "
         "RF module revisions (before an update installs)."},
        {"diff", "Compare two reports key by key: BEFORE [AFTER], each a capture, a device tree or a JSON report; "
                 "AFTER is --root or this instrument when left out."},
        {"output", "Write the report to FILE, atomically, instead of standard output; - is standard output.", "FILE"},
        {"verbose", "Show the library's own messages on standard error."},
    });

    if (!parser.parse(app.arguments())) {
        error = parser.errorText();
        return false;
    }
    if (parser.isSet(helpOption))
        parser.showHelp(exitReport);
    if (parser.isSet(versionOption))
        parser.showVersion();
    QString age, limit, profile;
    if (!singleValue(parser, "root", settings.deviceTree, error) ||
        !singleValue(parser, "capture", settings.capture, error) ||
        !singleValue(parser, "output", settings.output, error) ||
        !singleValue(parser, "max-calibration-age", age, error) ||
        !singleValue(parser, "critical-temperature", limit, error) || !singleValue(parser, "expect", profile, error))
        return false;
    settings.diff = parser.isSet("diff");
    if (settings.diff) {
        settings.diffSides = parser.positionalArguments();
        if (settings.diffSides.isEmpty() || settings.diffSides.size() > 2 || settings.diffSides.contains(QString())) {
            error = "--diff takes BEFORE and at most AFTER: a capture, a device tree or a JSON report each";
            return false;
        }
    }
    if (!settings.diff && !parser.positionalArguments().isEmpty()) {
        error = "unexpected argument '" + parser.positionalArguments().first() + "'";
        return false;
    }
    settings.json = parser.isSet("json");
    settings.sanitize = parser.isSet("sanitize");
    settings.verbose = parser.isSet("verbose");
    settings.allowTools = parser.isSet("allow-tools");
    settings.sections = parser.values("section");
    settings.check = parser.isSet("check");
    settings.metrics = parser.isSet("metrics");
    settings.nameValue = parser.isSet("name-value");
    settings.strict = parser.isSet("strict");
    settings.hardwareOnly = parser.isSet("hardware-only");
    if (!age.isEmpty()) {
        const std::optional<double> days =
            numberOption("--max-calibration-age", age, 0, longestCalibrationAge, true, error);
        if (!days)
            return false;
        settings.maxCalibrationAgeDays = static_cast<int>(*days);
    }
    if (!limit.isEmpty() && !(settings.criticalTemperature = numberOption("--critical-temperature", limit, lowestLimit,
                                                                          highestLimit, false, error)))
        return false;
    for (const QString &section : settings.sections) {
        if (!reportSectionNames().contains(section)) {
            error = "unknown section '" + section + "' (sections: " + reportSectionNames().join(", ") + ")";
            return false;
        }
    }
    if (!optionsGoTogether(settings, !profile.isEmpty(), error))
        return false;
    if (!profile.isEmpty()) {
        QString refusal;
        settings.release = readReleaseProfile(profile, refusal);
        if (!settings.release) {
            error = QStringLiteral("refused the release profile %1: %2").arg(profile, refusal);
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
// the report is written to, the original standard output; -1 when there is none (it was closed).
int separateReportFromLibraryOutput(bool outputOpen, bool verbose)
{
    const int reportFd = outputOpen ? ::dup(STDOUT_FILENO) : -1;
    // Standard output itself now leads where the library's lines belong; never to a file opened later.
    const int libraryFd = verbose ? ::dup(STDERR_FILENO) : ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (libraryFd >= 0 && libraryFd != STDOUT_FILENO) {
        ::dup2(libraryFd, STDOUT_FILENO);
        ::close(libraryFd);
    }
    if (!verbose)
        qInstallMessageHandler(dropDebugLines);
    return reportFd;
}

bool enterDeviceRoot(const QString &tree, bool treeProgramsRun, const QString &source, QString &error)
{
    try {
        deviceroot::Options options;
        options.deviceTree = QFile::encodeName(tree).toStdString();
        options.treeProgramsRun = treeProgramsRun;
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
        // The library runs nothing but a regular file: a folder or a FIFO there may stay.
        struct stat info;
        if (::stat(QFile::encodeName(tool).constData(), &info) == 0 && !S_ISREG(info.st_mode))
            continue;
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
    bool holdsAny = false;
    try {
        for (const QString &tool : identityToolPaths())
            if (!deviceroot::treeHolds(treePath, QFile::encodeName(tool).toStdString()))
                foreignTools << tool;
        // An empty device is possible (and then reported), but more often the wrong folder was given.
        holdsAny = foreignTools.size() < identityToolPaths().size();
        for (const QString &path : capturedFilePaths())
            holdsAny = holdsAny || deviceroot::treeHolds(treePath, QFile::encodeName(path).toStdString());
    } catch (const deviceroot::SetupError &setupError) {
        error = QString::fromLocal8Bit(setupError.what());
        return false;
    }
    if (!holdsAny && QFileInfo(tree).isDir())
        std::fprintf(stderr, "rfsysinfo: warning: %s holds none of the files the library reads\n",
                     qPrintable(settings.deviceTree));
    return enterDeviceRoot(tree, settings.allowTools, QStringLiteral("the device tree %1").arg(settings.deviceTree),
                           error) &&
           removeTools(foreignTools, error);
}

// Whether the identity tools answer: on this instrument always, for a tree only when allowed, and
// for a capture as they answered when it was made.
bool identityToolsAnswer(const Settings &settings, const DeviceState *replayed)
{
    return replayed ? replayed->toolsAsked : settings.deviceTree.isEmpty() || settings.allowTools;
}

// The time a capture records: now, or SOURCE_DATE_EPOCH where it is set, so that two captures of an
// unchanged device can be made byte for byte the same.
QDateTime captureTime()
{
    bool isNumber = false;
    const qint64 fixed = qEnvironmentVariable("SOURCE_DATE_EPOCH").toLongLong(&isNumber);
    return isNumber ? QDateTime::fromSecsSinceEpoch(fixed, Qt::UTC) : QDateTime::currentDateTimeUtc();
}

// The serial numbers a capture must not carry: the inventory's, and whatever a tool answered for the
// serial number field.
QStringList serialNumbersOf(rfSystemInfo &info, const DeviceState &state)
{
    ReportOptions inventoryOnly;
    inventoryOnly.sections = QStringList{QStringLiteral("inventory")};
    QStringList serials = serialNumbersIn(collectReport(info, inventoryOnly));
    for (const IdentityAnswer &answer : state.answers)
        if (answer.argument == QLatin1String(rfsi::paths::productSerialField) && !isMarkerText(answer.output.trimmed()))
            serials << answer.output.trimmed();
    return serials;
}

// What a run made: its exit status, the bytes for the destination and, for a capture, the line that
// says what went into it. Nothing to write when the run failed (it said why).
struct Made
{
    int status = exitReport;
    std::optional<QByteArray> bytes;
    QString summary;
};

Made failed(int status, const QString &message)
{
    return {fail(status, message), std::nullopt, {}};
}

Made capture(const Settings &settings, const DeviceState *replayed)
{
    rfSystemInfo &info = *rfSystemInfo::param();
    DeviceState state = readDeviceState(info, identityToolsAnswer(settings, replayed));
    // A capture of a capture keeps the instrument's software, not this machine's, and what the first
    // capture cut short stays marked.
    if (replayed) {
        state.origin.software = replayed->origin.software;
        const QStringList truncated = replayed->truncatedFiles();
        for (DeviceNode &file : state.files)
            file.truncated = file.truncated || truncated.contains(file.path);
    }
    state.origin.toolVersion = RFSI_VERSION;
    state.origin.captured = captureTime();
    state.origin.sourceTree = settings.deviceTree;
    state.origin.sanitized = settings.sanitize;
    if (settings.sanitize) {
        replaceSerials(state, serialNumbersOf(info, state), serialPlaceholder);
        if (!state.origin.sourceTree.isEmpty())
            state.origin.sourceTree = sourcePlaceholder;
    }
    QString error;
    const std::optional<QByteArray> archive = captureArchive(state, error);
    if (!archive)
        return failed(exitOutput, error);
    int copied = 0;
    for (const DeviceNode &file : state.files)
        copied += file.kind == NodeKind::File;
    return {exitReport, archive,
            QStringLiteral("captured %1 files and %2 answers of the identity tools into %3 (%4 bytes)\n")
                .arg(copied)
                .arg(state.answers.size())
                .arg(settings.capture == QLatin1String("-") ? QStringLiteral("standard output") : settings.capture)
                .arg(archive->size())};
}

// The report of the device this process sees, as the settings ask for it.
Made report(const Settings &settings, ReportSource source, const DeviceState *replayed)
{
    ReportOptions options;
    // The check judges the whole report, whose sections' findings depend on each other, and keeps the
    // findings of the sections asked for.
    options.sections = settings.check ? QStringList() : settings.sections;
    options.identityToolsRun = identityToolsAnswer(settings, replayed);
    Report report = collectReport(*rfSystemInfo::param(), options);
    report.collected = QDateTime::currentDateTimeUtc();
    if (replayed) {
        source.origin = replayed->origin;
        source.truncatedFiles = replayed->truncatedFiles();
        if (replayed->origin.software)
            applyRecordedSoftware(report, *replayed->origin.software);
    }
    report.source = source;
    // The check judges the report before serial numbers are replaced, since a replaced serial hides a
    // fallback.
    CheckOptions checkOptions;
    checkOptions.maxCalibrationAgeDays = settings.maxCalibrationAgeDays;
    checkOptions.strict = settings.strict;
    checkOptions.criticalTemperature = settings.criticalTemperature;
    checkOptions.release = settings.release;
    checkOptions.hardwareOnly = settings.hardwareOnly;
    checkOptions.sections = settings.sections.isEmpty() ? reportSectionNames() : settings.sections;
    QVector<Finding> findings =
        settings.check || settings.metrics ? checkReport(report, checkOptions) : QVector<Finding>();
    if (settings.sanitize)
        sanitizeFindings(findings, serialNumbersIn(report));
    // A sanitized capture gives sanitized reports: what it replaced is not there to show.
    if (settings.sanitize || (replayed && replayed->origin.sanitized))
        sanitizeReport(report);

    QByteArray text;
    if (settings.metrics)
        text = metricsReport(report, findings, checkOptions);
    else if (settings.check)
        text = settings.json ? checkJson(report, findings, checkOptions) : checkText(report, findings, checkOptions);
    else if (settings.nameValue)
        text = nameValueReport(report);
    else
        text = settings.json ? jsonReport(report) : textReport(report);
    return {settings.check && !checkPasses(findings, settings.strict) ? exitFailure : exitReport, text, {}};
}

// Two reports compared key by key: exit status 0 when equal, 1 when they differ.
int diff(const Settings &settings, const Destination &output)
{
    QString error;
    std::optional<DiffSide> sides[2];
    for (int side = 0; side < 2; ++side) {
        // AFTER left out: the --root source, or this instrument.
        const QString path = settings.diffSides.value(side, settings.deviceTree);
        sides[side] = readDiffSide(path, settings.allowTools, error);
        if (!sides[side])
            return fail(exitDeviceRoot, QStringLiteral("cannot read %1 (%2): %3")
                                            .arg(side == 0 ? "BEFORE" : "AFTER",
                                                 path.isEmpty() ? QStringLiteral("this instrument") : path, error));
    }
    if (settings.sanitize)
        sanitizeSides(*sides[0], *sides[1]);
    const QVector<Difference> differences = reportDifferences(*sides[0], *sides[1], settings.sections);
    const QByteArray text =
        settings.json ? diffJson(*sides[0], *sides[1], differences) : diffText(*sides[0], *sides[1], differences);
    if (!output.write(text, error))
        return fail(exitOutput, error);
    return differences.isEmpty() ? exitReport : exitFailure;
}

// Makes the report or the capture of the device the settings name: this instrument, or a copied tree
// or a capture, each in a private device root.
Made make(const Settings &settings)
{
    QString error;
    bool treeIsFolder = false;
    std::optional<DeviceState> replayed;
    if (!settings.deviceTree.isEmpty()) {
        replayed = readCaptureAt(settings.deviceTree, treeIsFolder, error);
        if (!replayed && !treeIsFolder)
            return failed(exitDeviceRoot, error);
    }
    if (replayed) {
        if (!enterDeviceRoot({}, false, QStringLiteral("the capture %1").arg(settings.deviceTree), error) ||
            !applyDeviceState(*replayed, error))
            return failed(exitDeviceRoot, error);
    } else if (!settings.deviceTree.isEmpty()) {
        if (!enterDeviceTree(settings, error))
            return failed(exitDeviceRoot, error);
        // A capture records what the tree holds; a report must not run what it was not allowed to.
        if (settings.capture.isEmpty() && !settings.allowTools && !removeTools(identityToolPaths(), error))
            return failed(exitDeviceRoot, error);
    }
    // From here on, a copied tree's programs may run: each through a launcher that confines it.
    if (!settings.deviceTree.isEmpty()) {
        try {
            const bool treeToolsRun = !replayed && settings.allowTools;
            if (treeToolsRun) {
                std::vector<std::string> tools;
                for (const QString &tool : identityToolPaths())
                    tools.push_back(QFile::encodeName(tool).toStdString());
                deviceroot::confineTreePrograms(tools);
            }
            deviceroot::dropPrivileges(treeToolsRun);
        } catch (const deviceroot::SetupError &setupError) {
            return failed(exitDeviceRoot, QString::fromLocal8Bit(setupError.what()));
        }
    }
    if (!settings.capture.isEmpty())
        return capture(settings, replayed ? &*replayed : nullptr);
    const ReportSource source{RFSI_VERSION, settings.deviceTree, replayed.has_value(), false, std::nullopt, {}};
    return report(settings, source, replayed ? &*replayed : nullptr);
}

// Runs make() in a child, which enters the device root, and takes what it made through a pipe: the
// output is written from here, outside the root, so that nothing of the output's folder is open while
// a tree's programs run. The child sends the summary, a NUL and the bytes, or nothing when it failed.
Made madeInChild(const Settings &settings, int reportFd)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return failed(exitDeviceRoot, QStringLiteral("cannot start the device root: %1").arg(std::strerror(errno)));
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child < 0) {
        const int error = errno;
        ::close(fds[0]);
        ::close(fds[1]);
        return failed(exitDeviceRoot, QStringLiteral("cannot start the device root: %1").arg(std::strerror(error)));
    }
    if (child == 0) {
        ::close(fds[0]);
        if (reportFd >= 0)
            ::close(reportFd); // the report goes through the pipe
        const Made made = make(settings);
        std::fflush(nullptr);
        if (made.bytes && !writeAll(fds[1], made.summary.toUtf8() + '\0' + *made.bytes))
            ::_exit(exitOutput);
        ::_exit(made.status);
    }
    ::close(fds[1]);
    QByteArray framed;
    readUpTo(fds[0], 2 * captureTotalCap, framed); // a capture keeps to its cap, and a report is small
    ::close(fds[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    const int exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : exitDeviceRoot;
    const int separator = framed.indexOf('\0');
    if (separator < 0)
        return {exitStatus, std::nullopt, {}};
    return {exitStatus, framed.mid(separator + 1), QString::fromUtf8(framed.left(separator))};
}

} // namespace

int main(int argc, char **argv)
{
    // Before anything opens a file: a closed standard output must not be taken by one.
    const bool standardOutputOpen = ::fcntl(STDOUT_FILENO, F_GETFD) >= 0;
    if (!standardOutputOpen && ::open("/dev/null", O_WRONLY) != STDOUT_FILENO)
        return exitOutput;
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("rfsysinfo");
    QCoreApplication::setApplicationVersion(RFSI_VERSION);
    // A reader that went away is an output that cannot be written (exit status 4), not a silent death.
    std::signal(SIGPIPE, SIG_IGN);

    Settings settings;
    QString error;
    if (!parseSettings(app, settings, error))
        return fail(exitUsage, error.startsWith(QLatin1String("refused")) ? error : error + " (see --help)");

    const int reportFd = separateReportFromLibraryOutput(standardOutputOpen, settings.verbose);
    // Checked before anything is read: a target that cannot be written is refused at once.
    const bool capturing = !settings.capture.isEmpty();
    const Destination destination(capturing                   ? "--capture"
                                  : settings.output.isEmpty() ? nullptr
                                                              : "--output",
                                  capturing ? settings.capture : settings.output, reportFd,
                                  capturing && !settings.sanitize);
    if (!destination.openError().isEmpty())
        return fail(exitOutput, destination.openError());

    if (settings.diff)
        return diff(settings, destination);
    const Made made = settings.deviceTree.isEmpty() ? make(settings) : madeInChild(settings, reportFd);
    if (!made.bytes)
        return made.status;
    std::fflush(stdout); // the library's own lines, before the report is complete
    if (!destination.write(*made.bytes, error))
        return fail(exitOutput, error);
    // A capture's summary goes beside the archive, never into it.
    const Destination summary(nullptr, {}, destination.toStandardOutput() ? STDERR_FILENO : reportFd);
    if (!made.summary.isEmpty() && !summary.write(made.summary.toUtf8(), error))
        return fail(exitOutput, error);
    return made.status;
}
