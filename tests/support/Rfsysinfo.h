// Running the report tool as its users do: a child process, its exit status and both outputs.
#ifndef RFSI_TESTS_RFSYSINFO_H
#define RFSI_TESTS_RFSYSINFO_H

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStringList>

#include <gtest/gtest.h>

namespace rfsitest {

struct ToolRun
{
    int status = -1;
    QString out, err;
};

inline ToolRun rfsysinfo(const QStringList &arguments,
                         const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(RFSI_TEST_RFSYSINFO), arguments);
    process.waitForFinished(30000);
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAllStandardOutput()), QString::fromUtf8(process.readAllStandardError())};
}

inline QJsonObject parsedJson(const ToolRun &run)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(run.out.toUtf8(), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << error.errorString().toStdString() << "\n"
                                                     << run.out.toStdString() << run.err.toStdString();
    return document.object();
}

} // namespace rfsitest

#endif // RFSI_TESTS_RFSYSINFO_H
