// The board description: a JSON document that describes the DPB, of which this library reads the FPGA
// bank versions. Log watchers on the instrument match the two failure lines as they stand.
#include "rfSystem_Info.h"

#include "DpbJsonHandle.h"
#include "deviceFile.h"
#include "devicePaths.h"
#include "markers.h"

#include <QJsonObject>
#include <QJsonValue>

#include <cstdio>
#include <cstring>
#include <mutex>

namespace {

using rfsi::paths::boardDescription;
constexpr char fpgaVersionSection[] = "FPGA_VER";

// The open-failure line names its origin the way the instrument's logs always have.
constexpr char openFailureFormat[] = "[%s:%s:%d] File open fail!! %s\n";
constexpr char openFailureSource[] = "rfSystemInfo/rfSystem_Info";
constexpr char openFailureFunction[] = "loadDpbSysmtemInfo";
constexpr int openFailureLine = 410;
constexpr char nullDocumentMessage[] = "## FlashJSonFile is Null";

// The board description is read on every FPGA and DSP version query, twice for a DSP version, and
// seldom changes: parsing the same bytes again gives the same document, so the last parse is kept and
// reused while the bytes stay the same. Objects on several threads share it, hence the lock.
QJsonDocument parseBoardDescription(const QByteArray &content)
{
    static std::mutex mutex;
    static QByteArray lastContent;
    static QJsonDocument lastDocument;
    const std::lock_guard<std::mutex> lock(mutex);
    if (lastContent.isNull() || content != lastContent) {
        // Bytes up to the first NUL, decoded as UTF-8 (invalid sequences replaced) and encoded back.
        lastDocument = QJsonDocument::fromJson(rfsi::textUpToNul(content).toUtf8());
        lastContent = content;
    }
    return lastDocument;
}

} // namespace

int rfSystemInfo::loadDpbSysmtemInfo()
{
    std::optional<QByteArray> content = rfsi::readDeviceBytes(boardDescription, false);
    if (!content) {
        std::printf(openFailureFormat, openFailureSource, openFailureFunction, openFailureLine, boardDescription);
        return -1;
    }
    // What a read in Qt's text mode gives: every carriage return dropped. Done once on the whole
    // content, it costs a fraction of text mode's reading in small pieces.
    if (std::memchr(content->constData(), '\r', static_cast<size_t>(content->size())))
        content->replace("\r", "");

    dpbJsonDoc = parseBoardDescription(*content);
    if (dpbJsonDoc.isNull()) {
        std::puts(nullDocumentMessage);
        return -1;
    }
    return 0;
}

QString rfSystemInfo::getFpgaVersionrfSystemInfo(QString key)
{
    DpbJsonHandle handle;
    // When the file cannot be read, the document of the last read that could still answers.
    loadDpbSysmtemInfo();
    const QJsonObject section = handle.getObjectList(dpbJsonDoc, QString::fromLatin1(fpgaVersionSection));
    // Only a JSON string is a version: anything else (absent, a number) reads as a null text.
    const QString version = section.value(key).toString();
    return version.isNull() ? QString::fromLatin1(rfsi::marker::noVersion) : version;
}
