#pragma once

#include "cli/Commands.h"

namespace sk {

// `sk inspect-action PATH [--compact]`: has the Skelvo application parse and validate the
// action at PATH and prints its JSON report. Needs no running application.
int inspectAction(const Arguments& arguments, const Session& session);

} // namespace sk
