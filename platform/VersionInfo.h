// The instrument's version service, as this library calls it.
#ifndef PLATFORM_VERSIONINFO_H
#define PLATFORM_VERSIONINFO_H

#include <QString>

class Q_DECL_EXPORT VersionInfo
{
public:
    // The installed package version.
    static QString getPkgVersion();
};

#endif // PLATFORM_VERSIONINFO_H
