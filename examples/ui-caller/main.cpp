// How a user interface asks the identity queries: never on its event loop. Each can block for up to
// 16 s (two identity tools that hang), so the queries run on one worker thread, one after another
// (the library's calls are serialised by the caller), and the answers come back to the event loop as
// a queued call. While they run, a 20 ms timer keeps ticking; the program prints the answers and the
// largest gap between two ticks, which is what a user would notice as a frozen screen.
#include <rfSystem_Info.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);

    // The event loop's heartbeat, as a UI's animation or input handling would need it.
    constexpr int tickMs = 20;
    QElapsedTimer sinceLastTick;
    qint64 largestGapMs = 0;
    QTimer heartbeat;
    QObject::connect(&heartbeat, &QTimer::timeout,
                     [&] { largestGapMs = std::max(largestGapMs, sinceLastTick.restart()); });
    sinceLastTick.start();
    heartbeat.start(tickMs);

    // One worker thread: every call of the library happens there, in order.
    QThread worker;
    QObject inWorker;
    inWorker.moveToThread(&worker);
    worker.start();
    QMetaObject::invokeMethod(&inWorker, [&app, &largestGapMs] {
        rfSystemInfo &info = *rfSystemInfo::param();
        const QString model = info.getSystemModel();
        const QString serial = info.getSystemSerial();
        QMetaObject::invokeMethod(&app, [model, serial, &largestGapMs] {
            std::printf("Model    %s\nSerial   %s\n", qPrintable(model), qPrintable(serial));
            std::printf("Largest gap between %d ms ticks: %lld ms\n", tickMs, static_cast<long long>(largestGapMs));
            QCoreApplication::quit();
        });
    });

    const int status = app.exec();
    worker.quit();
    worker.wait();
    return status;
}
