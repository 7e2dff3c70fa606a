#include "platform/SystemInfo.h"

#include <sys/utsname.h>

namespace SystemInfo {

QString versionTriple(const QString& release)
{
    // Releases look like "6.1.0-18-amd64" or "6.18.44-fc": only the leading numbers count.
    int parts[3] = {0, 0, 0};
    int index = 0;
    qsizetype pos = 0;
    while (index < 3 && pos < release.size() && release.at(pos).isDigit()) {
        qint64 number = 0;
        while (pos < release.size() && release.at(pos).isDigit()) {
            number = qMin<qint64>(number * 10 + release.at(pos).digitValue(), 999999);
            ++pos;
        }
        parts[index++] = static_cast<int>(number);
        if (pos < release.size() && release.at(pos) == QLatin1Char('.')) {
            ++pos;
        } else {
            break;
        }
    }
    return QStringLiteral("%1.%2.%3").arg(parts[0]).arg(parts[1]).arg(parts[2]);
}

bool isArm64MachineName(const QString& machine)
{
    return machine == QLatin1String("arm64") || machine == QLatin1String("aarch64");
}

QString osVersion()
{
    struct utsname info {};
    if (uname(&info) != 0) {
        return QStringLiteral("0.0.0");
    }
    return versionTriple(QString::fromLocal8Bit(info.release));
}

QString machineHardwareName()
{
    struct utsname info {};
    if (uname(&info) != 0) {
        return {};
    }
    return QString::fromLocal8Bit(info.machine);
}

bool isAppleSiliconEquivalent()
{
    return isArm64MachineName(machineHardwareName());
}

} // namespace SystemInfo
