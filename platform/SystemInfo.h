#pragma once

#include <QString>

// Facts about the machine that actions receive with every run.
namespace SystemInfo {

// The kernel's version as "major.minor.patch"; "0.0.0" when it cannot be read.
QString osVersion();
// True on 64-bit ARM hardware.
bool isArm64();

// The leading "major.minor.patch" of a kernel release such as "6.1.0-18-amd64".
QString versionTriple(const QString& release);

} // namespace SystemInfo
