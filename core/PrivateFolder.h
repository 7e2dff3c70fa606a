#pragma once

// Private folders of this user, shared by the application and `sk` (no Qt here).

#include <string>

namespace PrivateFolder {

// The runtime root when the session has none: "<temporaryFolder>/skelvo-runtime-<uid>".
std::string fallbackRuntimeRoot(const std::string& temporaryFolder);

// Creates `path` with mode 0700 when it is missing. True when it is then a real folder (not
// a symbolic link) owned by this user with mode 0700; otherwise `problem` says why.
bool ensure(const std::string& path, std::string* problem);

} // namespace PrivateFolder
