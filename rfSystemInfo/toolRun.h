// Running a program on the device and collecting what it prints. Internal to the library.
#ifndef RFSYSTEMINFO_TOOLRUN_H
#define RFSYSTEMINFO_TOOLRUN_H

#include <QByteArray>
#include <QList>

namespace rfsi {

// Starts `program` (a path, or a bare name searched in PATH) with `arguments`, no shell between,
// and returns everything it writes on standard output until it ends or `timeoutMs` pass. The program
// starts in a session and process group of its own, with standard input and standard error on the
// null device, default signal dispositions, an empty signal mask, and no descriptor of the caller
// but its standard output pipe; it inherits the caller's environment and working directory. When
// the call returns (or throws), the whole process group is killed and the program reaped. Empty when
// the program cannot be started.
//
// The program is started with posix_spawn, which shares the caller's memory until the exec instead
// of copying its page tables as fork() does (the cost of a run does not grow with the caller's size),
// and which reports a failed exec itself. The caller's SIGCHLD handling does not matter.
QByteArray runTool(const QByteArray &program, const QList<QByteArray> &arguments, int timeoutMs);

} // namespace rfsi

#endif // RFSYSTEMINFO_TOOLRUN_H
