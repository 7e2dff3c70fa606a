#pragma once

#include "cli/Commands.h"

#include <nlohmann/json.hpp>
#include <string>

namespace sk {

// The application's runtime folder, found as the application finds it:
// $SKELVO_HOME/runtime/skelvo, else $XDG_RUNTIME_DIR/skelvo, else
// ${TMPDIR:-/tmp}/skelvo-runtime-<uid>/skelvo, which must be a private folder of this user
// (empty, with `problem` saying why, when it is not).
std::string runtimeFolder(std::string* problem = nullptr);

// The socket the application listens on.
std::string socketPath();

// Sends `userInfo` as one request to the running application, prints each response as it
// arrives (those beginning "Error: " on standard error, the others on standard output) and
// returns when the finish message arrives: ExitSuccess, or ExitFailure when a response
// began "Error: ". ExitNotRunning when no application answers (after starting one when
// `session.startApp`), ExitConnectionLost when the connection ends before the finish.
int sendRequest(const nlohmann::json& userInfo, const Session& session);

} // namespace sk
