#include "platform/SystemInfo.h"

#include <QSysInfo>
#include <QVersionNumber>

namespace SystemInfo {

QString versionTriple(const QString& release)
{
    // Only the leading numbers count: "6.1.0-18-amd64", "5.15.153.1-microsoft-standard-WSL2".
    const QVersionNumber version = QVersionNumber::fromString(release);
    return QVersionNumber(version.majorVersion(), version.minorVersion(), version.microVersion())
        .toString();
}

QString osVersion()
{
    return versionTriple(QSysInfo::kernelVersion());
}

bool isArm64()
{
    // Qt names 64-bit ARM "arm64"; the kernel's own name is "aarch64".
    const QString machine = QSysInfo::currentCpuArchitecture();
    return machine == QLatin1String("arm64") || machine == QLatin1String("aarch64");
}

} // namespace SystemInfo
