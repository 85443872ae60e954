// The cost of every query beside the least work that gives the same answer (plain POSIX calls), in
// one run, inside a private device root that shows the sample device. Prints each pair's ratio, the
// stripped sizes of the libraries and the resident memory that the library adds to a process.
#include "Baselines.h"
#include "DeviceRoot.h"
#include "QueryRound.h"
#include "devicePaths.h"
#include "markers.h"

#include <rfSystem_Info.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

const char inventoryPath[] = "/tmp/SystemInventoryInfo.info";
const char rfRevisionPath[] = "/storage/RFHW_Revision.info";
const char boardPath[] = "/bin/DpbJsonInfo.json";
const char dspNamePath[] = "/Dsp/name.txt";
const char cpriNamePath[] = "/DspCpri/name.txt";
const char cpriVersionPath[] = "/DspCpri/version.txt";
const char tinyTool[] = "/bin/echo";
const char missingTool[] = "/bin/no-such-tool";

rfSystemInfo &info()
{
    return *rfSystemInfo::param();
}

std::string rfField(int position)
{
    std::string value = baseline::iniValue(rfRevisionPath, "RF_REVISION");
    for (int i = 0; i < position; ++i)
        value.erase(0, value.find('/') == std::string::npos ? value.size() : value.find('/') + 1);
    return value.substr(0, value.find('/'));
}

std::string presence(std::initializer_list<const char *> paths)
{
    std::string report;
    for (const char *path : paths)
        report += (report.empty() ? "" : "/") +
                  std::string(baseline::exists(path) ? rfsi::marker::present : rfsi::marker::none);
    return report;
}

std::string datedStatus(const char *path)
{
    return std::string(baseline::exists(path) ? "OK(" : "NONE(") + baseline::firstLine(path) + ")";
}

const char *const inventoryKeys[] = {"DPB_HardwareSetName",    "DPB_HardwareSetId",   "DPB_Revision",
                                     "DPB_SerialNumber",       "DPB_ManufactureDate", "DPB_CalibrationDate",
                                     "DPB_MinimumPower",       "DPB_CriticalTemp",    "DPB_PcieEndpoints",
                                     "DPB_ParentSerialNumber", "TOP_ProductName",     "TOP_ProductSerialNumber"};

std::string inventoryLoad()
{
    const std::string content = baseline::wholeFile(inventoryPath);
    std::string values;
    for (const char *key : inventoryKeys)
        values += content.substr(content.find(key), 8);
    return values + baseline::iniValue(rfRevisionPath, "RF_REVISION");
}

// The reads the load is required to make: the inventory file once for each of its twelve lookups,
// and the RF revision file.
std::string requiredInventoryReads()
{
    std::string values;
    for (const char *key : inventoryKeys)
        values += baseline::iniValue(inventoryPath, key);
    return values + baseline::iniValue(rfRevisionPath, "RF_REVISION");
}

struct Pair
{
    std::string name;
    std::function<void()> query;    // the library
    std::function<void()> baseline; // the least work for the same answer
    bool fileQuery;                 // held to the file queries' target
    std::size_t heldMiB = 0;        // memory the caller holds, touched, while both are timed
    double target = 0;              // a target of its own, beside the baseline that does the required reads
};

template <typename T>
std::function<void()> keep(std::function<T()> call)
{
    return [call] { benchmark::DoNotOptimize(call()); };
}

bool firstConstruction()
{
    rfSystemInfo::updatedSystemInfo = false;
    rfSystemInfo object;
    return rfSystemInfo::updatedSystemInfo;
}

// A DSP version: the count, and the board description loaded twice (before the index is looked at,
// and for the version), as the query is required to.
std::string requiredDspVersionReads()
{
    if (std::atoi(baseline::firstLine(dspNamePath).c_str()) <= 1)
        return {};
    benchmark::DoNotOptimize(baseline::jsonMember(boardPath, "FPGA_VER", "FPGA_BANK_1_VER"));
    return baseline::jsonMember(boardPath, "FPGA_VER", "FPGA_BANK_1_VER");
}

// How many times its baseline a query may take; 0: no target.
double targetOf(const Pair &pair)
{
    if (pair.target > 0)
        return pair.target;
    if (pair.fileQuery)
        return 3.0;
    if (pair.name.rfind("executeCmd(tinyTool", 0) == 0)
        return 1.5;
    return pair.name == "executeCmd(missingTool)" ? 2.0 : 0;
}

std::vector<Pair> pairs()
{
    rfSystemInfo &i = info();
    using S = std::string;
    using Q = QString;
    return {
        {"firstConstruction", keep<bool>(firstConstruction), keep<S>(inventoryLoad), true},
        {"firstConstruction(requiredReads)", keep<bool>(firstConstruction), keep<S>(requiredInventoryReads), false, 0,
         1.5},
        {"getDpbRfSysInfoFromFile(file)", keep<S>([&] { return i.getDpbRfSysInfoFromFile(3, true); }),
         keep<S>([] { return baseline::iniValue(inventoryPath, "DPB_SerialNumber"); }), true},
        {"getTopRfSysInfoFromFile(file)", keep<S>([&] { return i.getTopRfSysInfoFromFile(10, true); }),
         keep<S>([] { return baseline::iniValue(inventoryPath, "TOP_ProductName"); }), true},
        {"getDpbRfSysInfoFromFile(cached)", keep<S>([&] { return i.getDpbRfSysInfoFromFile(3, false); }),
         keep<S>([] { return rfSystemInfo::InventoryInfoString[3]; }), false},
        {"getTopRfSysInfoFromFile(cached)", keep<S>([&] { return i.getTopRfSysInfoFromFile(10, false); }),
         keep<S>([] { return rfSystemInfo::InventoryInfoString[10]; }), false},
        {"initAllSystemInfo(loaded)", keep<bool>([&] { return i.initAllSystemInfo(); }),
         keep<bool>([] { return rfSystemInfo::updatedSystemInfo; }), false},
        {"getSystemDpbSerial", keep<Q>([&] { return i.getSystemDpbSerial(); }),
         keep<S>([] { return rfSystemInfo::InventoryInfoString[10]; }), false},
        {"getDPBModuleRevision", keep<Q>([&] { return i.getDPBModuleRevision(); }),
         keep<S>([] { return rfSystemInfo::InventoryInfoString[2]; }), false},
        {"executeCmd(tinyTool)", keep<Q>([&] { return i.executeCmd(tinyTool, "KV721"); }),
         keep<S>([] { return baseline::spawnAndRead(tinyTool, {"KV721"}); }), false},
        // A large caller, such as the instrument's UI: starting a program must not cost more with
        // the caller's memory.
        {"executeCmd(tinyTool,held256MiB)", keep<Q>([&] { return i.executeCmd(tinyTool, "KV721"); }),
         keep<S>([] { return baseline::spawnAndRead(tinyTool, {"KV721"}); }), false, 256},
        {"executeCmd(tinyTool,held1GiB)", keep<Q>([&] { return i.executeCmd(tinyTool, "KV721"); }),
         keep<S>([] { return baseline::spawnAndRead(tinyTool, {"KV721"}); }), false, 1024},
        {"executeCmd(missingTool)", keep<Q>([&] { return i.executeCmd(missingTool, "x"); }),
         keep<bool>([] { return baseline::failedSpawn(missingTool); }), false},
        {"getSystemModel", keep<Q>([&] { return i.getSystemModel(); }), keep<S>([] {
             return baseline::spawnAndRead("/bin/getSicutil", {"-r", "-sol", "5", "ProductName"});
         }),
         false},
        {"getSystemSerial", keep<Q>([&] { return i.getSystemSerial(); }), keep<S>([] {
             return baseline::spawnAndRead("/bin/getSicutil", {"-r", "-sol", "5", "ProductSerialNumber"});
         }),
         false},
        {"getSystemModelSystemCmd(noTools)",
         keep<Q>([&] { return i.executeCmd(missingTool, "ProductName") + i.executeCmd(missingTool, "ProductName"); }),
         keep<bool>([] { return baseline::failedSpawn(missingTool) && baseline::failedSpawn(missingTool); }), false},
        {"checkSystemRfSerial", keep<Q>([&] { return i.checkSystemRfSerial(); }), keep<S>([] { return S("RFSERIAL"); }),
         false},
        {"checkSystemFirmwareVersion", keep<Q>([&] { return i.checkSystemFirmwareVersion(); }),
         keep<S>([] { return S("1.0.0"); }), false},
        {"checkSystemUIVersion", keep<Q>([&] { return i.checkSystemUIVersion(); }),
         keep<S>([] { return S("5.010.005a"); }), false},
        {"getYroModuleRevision", keep<int>([&] { return i.getYroModuleRevision(); }),
         keep<int>([] { return std::atoi(rfField(0).c_str()); }), true},
        {"getMixerModuleRevision", keep<int>([&] { return i.getMixerModuleRevision(); }),
         keep<int>([] { return std::atoi(rfField(1).c_str()); }), true},
        {"getDncModuleRevision", keep<int>([&] { return i.getDncModuleRevision(); }),
         keep<int>([] { return std::atoi(rfField(2).c_str()); }), true},
        {"getYroModuleStringRevision", keep<S>([&] { return i.getYroModuleStringRevision(); }),
         keep<S>([] { return rfField(0); }), true},
        {"getMixerModuStringRevision", keep<S>([&] { return i.getMixerModuStringRevision(); }),
         keep<S>([] { return rfField(1); }), true},
        {"getDncModuleStringRevision", keep<S>([&] { return i.getDncModuleStringRevision(); }),
         keep<S>([] { return rfField(2); }), true},
        {"checkRFModuleRevision", keep<Q>([&] { return i.checkRFModuleRevision(); }),
         keep<S>([] { return baseline::iniValue(rfRevisionPath, "RF_REVISION"); }), true},
        {"getRFModuleRevision", keep<Q>([&] { return i.getRFModuleRevision(); }),
         keep<S>([] { return baseline::iniValue(rfRevisionPath, "RF_REVISION"); }), true},
        {"loadDpbSysmtemInfo", keep<int>([&] { return i.loadDpbSysmtemInfo(); }),
         keep<S>([] { return baseline::jsonMember(boardPath, "FPGA_VER", "FPGA_BANK_0_VER"); }), true},
        {"getFpgaVersionrfSystemInfo", keep<Q>([&] { return i.getFpgaVersionrfSystemInfo("FPGA_BANK_3_VER"); }),
         keep<S>([] { return baseline::jsonMember(boardPath, "FPGA_VER", "FPGA_BANK_3_VER"); }), true},
        {"checkSystemTemperature", keep<Q>([&] { return i.checkSystemTemperature(); }), keep<S>([] {
             std::string report;
             for (const char *zone : {"3", "0", "7", "1"})
                 report += baseline::firstLine(("/sys/class/thermal/thermal_zone" + S(zone) + "/temp").c_str());
             return report;
         }),
         true},
        {"checkFlatnessFile", keep<Q>([&] { return i.checkFlatnessFile(); }), keep<S>([] {
             return presence({"/bin/DNC_10_100M.csv", "/bin/Low_10_100M.csv", "/bin/High_10_100M.csv"});
         }),
         true},
        {"checkDncDacFile", keep<Q>([&] { return i.checkDncDacFile(); }), keep<S>([] {
             return presence({"/bin/dncDac1.csv", "/bin/dncDac2.csv"});
         }),
         true},
        {"checkYroDacFile", keep<Q>([&] { return i.checkYroDacFile(); }), keep<S>([] {
             return presence({"/bin/nyroFreq1stlow.csv", "/bin/nyroFreq1sthigh.csv"});
         }),
         true},
        {"checkYroSpurFile", keep<Q>([&] { return i.checkYroSpurFile(); }), keep<S>([] {
             return presence({"/bin/nyro_spur_low.csv", "/bin/nyro_spur_high.csv"});
         }),
         true},
        {"checkSystemDate", keep<Q>([&] { return i.checkSystemDate("/bin/basic_freq_cal.csv"); }),
         keep<S>([] { return baseline::firstLine("/bin/basic_freq_cal.csv"); }), true},
        {"checkBasicFreqCalFile", keep<Q>([&] { return i.checkBasicFreqCalFile(); }),
         keep<S>([] { return datedStatus("/bin/basic_freq_cal.csv"); }), true},
        {"checkBaseHighFreqCalFile", keep<Q>([&] { return i.checkBaseHighFreqCalFile(); }),
         keep<S>([] { return datedStatus("/bin/freq_cal_high.csv"); }), true},
        {"checkBaseLowFreqCalFile", keep<Q>([&] { return i.checkBaseLowFreqCalFile(); }),
         keep<S>([] { return datedStatus("/bin/freq_cal_low.csv"); }), true},
        {"checkDncFreqCalFile", keep<Q>([&] { return i.checkDncFreqCalFile(); }),
         keep<S>([] { return datedStatus("/bin/dnc_freq_cal.csv"); }), true},
        {"checkThirdOffsetFile", keep<Q>([&] { return i.checkThirdOffsetFile(); }),
         keep<S>([] { return datedStatus("/bin/thirdAmpOffset.dat"); }), true},
        {"getDspActiveCount", keep<int>([&] { return i.getDspActiveCount(); }),
         keep<int>([] { return std::atoi(baseline::firstLine(dspNamePath).c_str()); }), true},
        {"checkDspVersion", keep<Q>([&] { return i.checkDspVersion(1); }), keep<S>([] {
             return std::atoi(baseline::firstLine(dspNamePath).c_str()) > 1
                        ? baseline::jsonMember(boardPath, "FPGA_VER", "FPGA_BANK_1_VER")
                        : S();
         }),
         true},
        {"checkDspVersion(requiredReads)", keep<Q>([&] { return i.checkDspVersion(1); }),
         keep<S>(requiredDspVersionReads), false, 0, 1.5},
        {"checkDspString", keep<Q>([&] { return i.checkDspString(1); }),
         keep<S>([] { return baseline::countedEntry(dspNamePath, 1); }), true},
        {"getCpriDspActiveCount", keep<int>([&] { return i.getCpriDspActiveCount(); }),
         keep<int>([] { return std::atoi(baseline::firstLine(cpriNamePath).c_str()); }), true},
        {"checkCpriDspVersion", keep<Q>([&] { return i.checkCpriDspVersion(1); }), keep<S>([] {
             return std::atoi(baseline::firstLine(cpriNamePath).c_str()) > 1
                        ? baseline::countedEntry(cpriVersionPath, 1)
                        : S();
         }),
         true},
        {"checkCpriDspString", keep<Q>([&] { return i.checkCpriDspString(1); }),
         keep<S>([] { return baseline::countedEntry(cpriNamePath, 1); }), true},
    };
}

// Every pair's time, kept from the benchmark run for the ratio table.
class RatioReporter : public benchmark::ConsoleReporter
{
public:
    std::map<std::string, double> nanoseconds;

    // With repetitions, the median; with one, the run itself.
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs)
            if (run.run_type == Run::RT_Iteration || run.aggregate_name == "median")
                nanoseconds[run.run_name.function_name] = run.GetAdjustedRealTime();
        ConsoleReporter::ReportRuns(runs);
    }
};

long residentKiB()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stol(line.substr(6));
    return 0;
}

long strippedBytes(const char *library)
{
    const std::string copy = "/tmp/stripped.so";
    if (std::system(("strip --strip-all -o " + copy + " " + library).c_str()) != 0)
        return -1;
    struct stat info;
    return ::stat(copy.c_str(), &info) == 0 ? static_cast<long>(info.st_size) : -1;
}

// One call of a tool that prints 50 MB (500,000 lines of 99 characters): how long it takes and how
// much the process's peak resident memory grows. Output has no limit but the tool's time-out, so
// this is what a talkative tool costs a caller.
std::string measureLargeOutput()
{
    const char tool[] = "/bin/print50mb";
    std::ofstream(tool) << "#!/bin/sh\nexec seq -f '%099g' 1 500000\n";
    ::chmod(tool, 0755);
    rusage before{}, after{};
    ::getrusage(RUSAGE_SELF, &before);
    const auto start = std::chrono::steady_clock::now();
    const QString answer = info().executeCmd(tool, "");
    const auto elapsed = std::chrono::steady_clock::now() - start;
    ::getrusage(RUSAGE_SELF, &after);
    char line[160];
    std::snprintf(line, sizeof line, "a tool printing 50 MB: %lld ms, %lld characters, peak resident memory +%ld MiB\n",
                  static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count()),
                  static_cast<long long>(answer.size()), (after.ru_maxrss - before.ru_maxrss) / 1024);
    return line;
}

// Wall time and peak resident memory of one run of the report tool, as its users start it.
struct ToolCost
{
    double milliseconds = 0;
    long peakKiB = 0;
};

ToolCost runReportTool(const std::vector<const char *> &arguments)
{
    std::vector<char *> argv{const_cast<char *>(RFSI_BENCH_RFSYSINFO)};
    for (const char *argument : arguments)
        argv.push_back(const_cast<char *>(argument));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    ToolCost cost;
    rusage usage{};
    int status = 0;
    if (::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0 &&
        ::wait4(pid, &status, 0, &usage) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        cost.milliseconds = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
        cost.peakKiB = usage.ru_maxrss;
    }
    ::posix_spawn_file_actions_destroy(&actions);
    return cost;
}

// The report tool on the sample device: a plain report, the check, the metrics, a capture of the
// device, a report replayed from that capture, a check against a release profile and a diff with the
// capture; median time and peak memory of 20 runs each.
std::string measureCaptureAndReplay()
{
    const std::pair<const char *, std::vector<const char *>> runs[] = {
        {"report (--json)", {"--json"}},
        {"check (--check)", {"--check"}},
        {"metrics (--metrics)", {"--metrics"}},
        {"capture (--capture)", {"--capture", "/tmp/benchmark-capture.tgz"}},
        {"replayed report (--json --root CAPTURE)", {"--json", "--root", "/tmp/benchmark-capture.tgz"}},
        // A release profile made as the README says, then the unit judged against it, and the unit
        // compared with its capture (two reports, each a run of the tool).
        {"release profile (--json --section ...)",
         {"--json", "--section", "identity", "--section", "fpga", "--section", "dsp", "--output",
          "/tmp/benchmark-release.json"}},
        {"check against it (--check --expect)", {"--check", "--expect", "/tmp/benchmark-release.json"}},
        {"diff with the capture (--diff CAPTURE)", {"--diff", "/tmp/benchmark-capture.tgz"}},
    };
    std::string table = "\nrfsysinfo on the sample device (median of 20 runs):\n";
    for (const auto &[name, arguments] : runs) {
        std::vector<ToolCost> costs;
        for (int run = 0; run < 20; ++run)
            costs.push_back(runReportTool(arguments));
        std::sort(costs.begin(), costs.end(),
                  [](const ToolCost &a, const ToolCost &b) { return a.milliseconds < b.milliseconds; });
        long peak = 0;
        for (const ToolCost &cost : costs)
            peak = std::max(peak, cost.peakKiB);
        char line[160];
        std::snprintf(line, sizeof line, "  %-42s %8.1f ms %8ld KiB peak resident\n", name,
                      costs[costs.size() / 2].milliseconds, peak);
        table += line;
    }
    return table;
}

// A full report (identity tools left out) with a sparse file of `gibibytes` at every path the library
// reads, in a child of its own: the time and the child's peak resident memory, which must not grow
// with the files' size.
std::string measureSparseFiles(int gibibytes)
{
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = ::fork();
    if (child == 0) {
        std::vector<std::string> paths(std::begin(rfsi::paths::deviceFiles), std::end(rfsi::paths::deviceFiles));
        for (int sensor : rfsi::paths::temperatureSensors)
            paths.push_back(rfsi::paths::thermalZonePath(sensor));
        for (const std::string &path : paths) {
            std::ofstream(path, std::ios::app).close();
            if (::truncate(path.c_str(), static_cast<off_t>(gibibytes) << 30) != 0)
                ::_exit(1);
        }
        rfSystemInfo::updatedSystemInfo = false;
        rfSystemInfo fresh;
        rfsitest::askEveryQuery(fresh, false);
        ::_exit(0);
    }
    int status = 0;
    rusage usage{};
    ::wait4(child, &status, 0, &usage);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    deviceroot::reset();
    char line[200];
    std::snprintf(line, sizeof line, "a sparse file of %2d GiB at every path: %6lld ms, peak resident %4ld MiB%s\n",
                  gibibytes,
                  static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count()),
                  usage.ru_maxrss / 1024, WIFEXITED(status) && WEXITSTATUS(status) == 0 ? "" : " (FAILED)");
    return line;
}

// Times `call` while the process holds `heldMiB` of memory that it has written to, so that every
// page is mapped (as in a large caller). A run with held memory is 40 calls, enough for a median.
void registerTimed(const std::string &name, const std::function<void()> &call, std::size_t heldMiB)
{
    benchmark::internal::Benchmark *timed =
        benchmark::RegisterBenchmark(name.c_str(), [call, heldMiB](benchmark::State &state) {
            const std::size_t bytes = heldMiB << 20;
            const std::unique_ptr<char[]> held(bytes ? new char[bytes] : nullptr);
            if (bytes)
                std::memset(held.get(), 1, bytes);
            benchmark::DoNotOptimize(held.get());
            for (auto _ : state)
                call();
        });
    if (heldMiB)
        timed->Iterations(40);
}

void dropQtMessages(QtMsgType, const QMessageLogContext &, const QString &) {}

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    deviceroot::Options options;
    options.deviceTree = RFSI_BENCH_SOURCE_DIR "/examples/device";
    // Writable, so that a profiler run around the benchmarks can leave its output in the build tree.
    options.hostFolders = {{RFSI_BENCH_BINARY_DIR, true}};
    try {
        deviceroot::enter(options);
    } catch (const deviceroot::SetupError &error) {
        std::fprintf(stderr, "rfsi_benchmarks: cannot set up the private device root: %s\n", error.what());
        return 1;
    }
    // The command runner's debug line costs the same with any handler; this one keeps the log quiet.
    qInstallMessageHandler(dropQtMessages);

    const long atStart = residentKiB();
    info();
    const long afterParam = residentKiB();
    rfsitest::askEveryQuery(info());
    const long afterReport = residentKiB();
    // Before the benchmarks raise the peak.
    const std::string largeOutput =
        measureLargeOutput() + measureCaptureAndReplay() + measureSparseFiles(1) + measureSparseFiles(16);

    std::vector<Pair> measured = pairs();
    measured.push_back({"fullReport(withTools)", [] { rfsitest::askEveryQuery(info(), true); }, nullptr, false});
    measured.push_back({"fullReport(withoutTools)", [] { rfsitest::askEveryQuery(info(), false); }, nullptr, false});
    for (const Pair &pair : measured) {
        registerTimed("query/" + pair.name, pair.query, pair.heldMiB);
        if (pair.baseline)
            registerTimed("baseline/" + pair.name, pair.baseline, pair.heldMiB);
    }
    // The full report's baseline is every query's baseline once.
    benchmark::RegisterBenchmark("baseline/fullReport(withoutTools)", [](benchmark::State &state) {
        const std::vector<Pair> all = pairs();
        for (auto _ : state)
            for (const Pair &pair : all)
                if (pair.name.find("Cmd") == std::string::npos && pair.name.find("getSystemS") == std::string::npos &&
                    pair.name.find("getSystemM") == std::string::npos && pair.target == 0)
                    pair.baseline();
    });

    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    std::printf("\n%-36s %12s %12s %8s  %s\n", "query", "library us", "baseline us", "ratio", "target");
    int missed = 0;
    for (const Pair &pair : measured) {
        const auto query = reporter.nanoseconds.find("query/" + pair.name);
        const auto base = reporter.nanoseconds.find("baseline/" + pair.name);
        if (query == reporter.nanoseconds.end() || base == reporter.nanoseconds.end())
            continue;
        const double ratio = query->second / base->second;
        const double target = targetOf(pair);
        const bool met = target == 0 || ratio <= target;
        missed += !met;
        std::printf("%-36s %12.2f %12.2f %8.2f  %s\n", pair.name.c_str(), query->second / 1000, base->second / 1000,
                    ratio, target == 0 ? "-" : (met ? "met" : "MISSED"));
    }
    std::printf("\nstripped librfSystemInfo: %ld bytes (target < 153600)\n", strippedBytes(RFSI_BENCH_LIBRARY));
    std::printf("stripped stand-ins:       %ld bytes\n", strippedBytes(RFSI_BENCH_STANDINS));
    std::printf("resident memory: %ld KiB at start; param() adds %ld KiB; a first full report %ld KiB more\n", atStart,
                afterParam - atStart, afterReport - afterParam);
    std::printf("%s", largeOutput.c_str());
    std::printf("targets missed: %d\n", missed);
    return 0;
}
