// rfSystem_Info.h: the system information of the instrument, as one object.
//
// Callers ask rfSystemInfo::param() for the process-wide instance and call its queries. Every query
// answers by value; a missing or unreadable source never raises an error but yields a fixed marker
// text or default instead (`NONE`, "r", "1000", 1 and "1.0", the empty string, ...). The library
// only reads: it writes no file and keeps no file or process open after a call returns.
//
// No query reads more than the first 64 MiB of a file, far above any real device file: a longer file
// answers as if it ended there (its text cut at 64 MiB), so neither memory nor time grows with a
// file's size beyond that. In the INI files, a stored value ("@Variant(...)") that Qt could read only
// by allocating more than its bytes hold (a list that claims 2^31 elements) reads as empty, as a broken
// stored value does; stored texts, numbers, and lists and maps of them keep their answers.
//
// Nothing here synchronises: getRFModuleRevision (RFHwRevision), loadDpbSysmtemInfo and
// getFpgaVersionrfSystemInfo (dpbJsonDoc) and checkDspString (dspNames) change shared state, and a
// caller that uses them from several threads serialises them itself. param() itself is safe to call
// from any thread.
#ifndef RFSYSTEM_INFO_H
#define RFSYSTEM_INFO_H

#include <QJsonDocument>
#include <QString>
#include <QtGlobal>

#include <string>

#if defined(RFSYSTEMINFO_BUILDING_LIBRARY)
#define RFSYSTEMINFO_EXPORT Q_DECL_EXPORT
#else
#define RFSYSTEMINFO_EXPORT Q_DECL_IMPORT
#endif

class RFSYSTEMINFO_EXPORT rfSystemInfo
{
public:
    // Fills the key tables and, on the first construction in the process, loads the inventory table
    // and RFHwRevision from the files (see initAllSystemInfo). Never fails for missing files.
    rfSystemInfo();
    // Releases the object's own members only; the static members keep their values.
    ~rfSystemInfo();

    // The process-wide instance, created by the first call (thread-safe); always the same address.
    static rfSystemInfo *param();

    // ---- Inventory (/tmp/SystemInventoryInfo.info, INI keys "DPB_<key>" and "TOP_<key>") ----

    // fromFile false: a copy of inventory slot `index` (0..19), read from memory only; the empty
    // string for an index outside 0..19. fromFile true: reads "DPB_" + inventoryKeys[index] from the
    // file now; `NONE` for an index outside 0..9, a missing file or an empty value, "r" when the file
    // lacks the key.
    std::string getDpbRfSysInfoFromFile(int index, bool fromFile);
    // As getDpbRfSysInfoFromFile, with the prefix "TOP_" and the file form accepting 10 and 11 only.
    std::string getTopRfSysInfoFromFile(int index, bool fromFile);
    // Loads inventory slots 0..11 and RFHwRevision once per process (until updatedSystemInfo is set
    // back to false). Always returns true.
    bool initAllSystemInfo();
    // Inventory slot 10 (the TOP product name, despite the method's name), as loaded.
    QString getSystemDpbSerial();
    // Inventory slot 2 (the DPB revision), as loaded.
    QString getDPBModuleRevision();

    // ---- Product identity ----

    // Runs `program` without a shell, waits at most 8000 ms and returns its standard output up to the
    // first NUL byte, simplified (white space runs folded to one space, ends trimmed). A path that
    // contains "icutil" receives "-r", "-sol", "5" before `argument`. Empty when the program cannot
    // run or prints nothing; a program still running after 8000 ms is killed, with everything it
    // started. Worst case: 8000 ms and the time to start and kill it. The caller's SIGCHLD handling
    // (ignored, SA_NOCLDWAIT, or a handler that reaps every child) changes neither answer nor time.
    QString executeCmd(std::string program, std::string argument);
    // The identity queries below run up to two tools one after the other, so each can block its
    // caller for up to 16 s (both tools hanging). A user interface asks them off its event loop.
    // The product name from /bin/getSicutil, else /usr/bin/sicutil, else `fallback`.
    QString getSystemModelSystemCmd(std::string fallback);
    // getSystemModelSystemCmd("KV720").
    QString getSystemModel();
    // The product serial number from /bin/getSicutil, else /usr/bin/sicutil, else `fallback`.
    QString getSystemSerialSystemCmd(std::string fallback);
    // getSystemSerialSystemCmd("SERIALNOTSET").
    QString getSystemSerial();
    // Always "RFSERIAL".
    QString checkSystemRfSerial();
    // The installed package version (VersionInfo::getPkgVersion()).
    QString checkSystemFirmwareVersion();
    // Always "5.010.005a".
    QString checkSystemUIVersion();

    // ---- RF modules (/storage/RFHW_Revision.info, INI key "RF_REVISION" = "YRO/Mixer/DNC") ----

    // A module's revision field as a number truncated toward zero: 1 when the file is missing, the
    // value is empty or the field is missing; 0 for a field that is not a number.
    int getYroModuleRevision();
    int getMixerModuleRevision();
    int getDncModuleRevision();
    // A module's revision field as text, unchanged: "1.0" when the file is missing, the value is
    // empty or the field is missing; "r" (YRO) when the file lacks the key.
    std::string getYroModuleStringRevision();
    std::string getMixerModuStringRevision();
    std::string getDncModuleStringRevision();
    // The whole RF_REVISION value: `NONE` for a missing file or empty value, "r" without the key.
    // Changes nothing.
    QString checkRFModuleRevision();
    // checkRFModuleRevision(), also stored in RFHwRevision.
    QString getRFModuleRevision();

    // ---- Board description (/bin/DpbJsonInfo.json) and FPGA versions ----

    // Reads and parses the board description into dpbJsonDoc. 0 on a non-null document; -1 when the
    // file does not open (dpbJsonDoc kept, a "File open fail!!" line on standard output) or does not
    // parse (dpbJsonDoc null, "## FlashJSonFile is Null" on standard output).
    int loadDpbSysmtemInfo();
    // Reloads the board description and returns the string member `key` of its "FPGA_VER" object;
    // "1000" when there is no such string.
    QString getFpgaVersionrfSystemInfo(QString key);

    // ---- Temperature ----

    // "<sensor 3>(P)/<sensor 0>(M)\n<sensor 7>(Y)/<sensor 1>(D)", the readings as the temperature
    // service gives them.
    QString checkSystemTemperature();

    // ---- Calibration files under /bin ----

    // Presence reports, one "OK" or `NONE` per file joined by "/":
    // DNC_10_100M.csv/Low_10_100M.csv/High_10_100M.csv.
    QString checkFlatnessFile();
    // dncDac1.csv/dncDac2.csv.
    QString checkDncDacFile();
    // nyroFreq1stlow.csv/nyroFreq1sthigh.csv.
    QString checkYroDacFile();
    // nyro_spur_low.csv/nyro_spur_high.csv.
    QString checkYroSpurFile();
    // The first line of `path` with white space simplified (may be empty); `NONE` when the file is
    // missing or does not open.
    QString checkSystemDate(QString path);
    // Dated statuses: "OK(<first line>)", "OK(NONE)" when unreadable, "NONE(NONE)" when missing.
    QString checkBasicFreqCalFile();    // basic_freq_cal.csv
    QString checkBaseHighFreqCalFile(); // freq_cal_high.csv
    QString checkBaseLowFreqCalFile();  // freq_cal_low.csv
    QString checkDncFreqCalFile();      // dnc_freq_cal.csv
    QString checkThirdOffsetFile();     // thirdAmpOffset.dat

    // ---- DSP images (/Dsp/name.txt, counted list: the count, then one name a line) ----

    // The count on line 1 of /Dsp/name.txt, or 3 when it is missing or below 1.
    int getDspActiveCount();
    // The version of DSP `index` (the FPGA bank of the same number in the board description); an
    // index above 15 or negative stands for 0; the empty string for an index not below the count.
    QString checkDspVersion(int index);
    // The name of DSP `index`, normalised as for checkDspVersion; names are kept in dspNames.
    QString checkDspString(int index);

    // ---- CPRI DSP images (/DspCpri/name.txt and /DspCpri/version.txt) ----

    // The count on line 1 of /DspCpri/name.txt, or 2 when it is missing or below 1.
    int getCpriDspActiveCount();
    // Entry `index` of /DspCpri/version.txt; the empty string when not listed or not accepted.
    QString checkCpriDspVersion(int index);
    // Entry `index` of /DspCpri/name.txt; the empty string when not listed or not accepted.
    QString checkCpriDspString(int index);

    // Inventory key names: DPB keys 0..9, TOP keys 10 and 11.
    std::string inventoryKeys[12];
    // "FPGA_BANK_<k>_VER" for k = 0..14; entries 15..29 empty.
    std::string fpgaBankKeys[30];
    // DSP names as last loaded by checkDspString.
    std::string dspNames[30];
    // The board description as last parsed; null until the first load that opens the file.
    QJsonDocument dpbJsonDoc;

    // Inventory table: slots 0..11 loaded once per process, 12..19 always empty.
    static std::string InventoryInfoString[20];
    // The RF revision summary last stored.
    static std::string RFHwRevision;
    // Kept for callers; the library neither reads nor writes it.
    static bool updateRFRevsionStatus;
    // True once the inventory table is loaded; setting it to false makes initAllSystemInfo reload.
    static bool updatedSystemInfo;
};

#endif // RFSYSTEM_INFO_H
