#pragma once

#include <QString>

// Facts about the machine that actions receive with every run.
namespace SystemInfo {

// The kernel's version as "major.minor.patch"; "0.0.0" when it cannot be read.
QString osVersion();
// The hardware name uname(2) reports ("x86_64", "aarch64", ...); empty when unavailable.
QString machineHardwareName();
// True on 64-bit ARM hardware, whichever of its two names the system uses.
bool isAppleSiliconEquivalent();

// The parsing behind the answers above, for other sources of the same texts.
QString versionTriple(const QString& release);
bool isArm64MachineName(const QString& machine);

} // namespace SystemInfo
