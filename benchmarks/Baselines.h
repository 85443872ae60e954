// The least work that gives a query's answer: plain POSIX calls, no Qt. Each benchmark of a query is
// measured beside one of these.
#ifndef RFSI_BENCHMARKS_BASELINES_H
#define RFSI_BENCHMARKS_BASELINES_H

#include <string>
#include <vector>

namespace baseline {

bool exists(const char *path);
// The bytes up to the first line feed (or the end), read with open and read.
std::string firstLine(const char *path);
std::string wholeFile(const char *path);
// The value of `key=` in an INI file, scanned in the file's bytes.
std::string iniValue(const char *path, const char *key);
// The string member `key` of the JSON object `section`, located in the file's bytes.
std::string jsonMember(const char *path, const char *section, const char *key);
// Line `index` + 2 of a counted list (the count is line 1).
std::string countedEntry(const char *path, int index);
// Runs a program with posix_spawn, reads its standard output to the end and waits for it.
std::string spawnAndRead(const char *program, const std::vector<const char *> &arguments);
// posix_spawn of a program that does not exist: true when it failed as expected.
bool failedSpawn(const char *program);

} // namespace baseline

#endif // RFSI_BENCHMARKS_BASELINES_H
