// The instrument's board-description service, as this library calls it.
#ifndef PLATFORM_DPBJSONHANDLE_H
#define PLATFORM_DPBJSONHANDLE_H

#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

class Q_DECL_EXPORT DpbJsonHandle
{
public:
    DpbJsonHandle();
    ~DpbJsonHandle();

    // The object that `document` holds under `name`; an empty object when there is none.
    QJsonObject getObjectList(QJsonDocument &document, QString name);
};

#endif // PLATFORM_DPBJSONHANDLE_H
