#pragma once

// The conversation between `sk` and the running application, shared by both sides (this
// header has no Qt in it so that `sk` can use it).
//
// `sk` connects to the Unix socket SocketName in the application's runtime folder
// ($XDG_RUNTIME_DIR/skelvo/, or $SKELVO_HOME/runtime/skelvo/) and sends ONE request: a JSON
// object on one line, {"name": RunTask, "userInfo": {"action": "list", ...}}. The
// application answers on the same connection with one JSON object per line:
//   {"name": Running}                                   at once
//   {"name": Response, "userInfo": {"response": "..."}} zero or more times; a response
//       that tells of a failure carries "failed": true unless it begins "Error: "
//   {"name": Finish}                                    exactly once, then it closes
// A connection that ends before Finish is an error for `sk`. Only processes of the same
// user are served. A request line longer than MaxMessageBytes is answered with an error.
//
// Request keys (all optional but "action"): "name", "grid", "fromGrid", "category",
// "text", "newName", "type", "icon", "cwd", "event" (strings); "files" (array of
// strings); "index", "position", "stackIndex", "cols", "size" (integers); "reset",
// "stack", "force", "json", "dropBar", "switcher" (booleans); "options" (object of
// string values).
//
// A second `skelvo` hands its arguments to the running one with
// {"name": HandOver, "userInfo": {"arguments": [...], "cwd": "..."}}, answered the same way.
namespace CmdLineProtocol {

inline constexpr const char* SocketName = "skelvo.sock";
inline constexpr const char* LockName = "skelvo.lock";
inline constexpr const char* RunTask = "SkelvoRunCmdLineTask";
inline constexpr const char* Running = "SkelvoRunCmdLineRunning";
inline constexpr const char* Response = "SkelvoRunCmdLineResponse";
inline constexpr const char* Finish = "SkelvoRunCmdLineFinish";
inline constexpr const char* HandOver = "SkelvoHandOverArguments";
// Room for `sk add -` with thousands of paths of the longest length (4096 bytes each).
inline constexpr long long MaxMessageBytes = 16 * 1024 * 1024;

} // namespace CmdLineProtocol
