// A full round of the library: every public query once, as the instrument's system page asks them.
// Shared by the tests and the benchmarks.
#ifndef RFSI_TESTS_QUERYROUND_H
#define RFSI_TESTS_QUERYROUND_H

#include <QStringList>

class rfSystemInfo;

namespace rfsitest {

// Every public query once, answers in a fixed order; identity tools included unless told otherwise.
QStringList askEveryQuery(rfSystemInfo &info, bool withIdentityTools = true);

} // namespace rfsitest

#endif // RFSI_TESTS_QUERYROUND_H
