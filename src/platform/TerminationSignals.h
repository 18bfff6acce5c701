#pragma once

#include <functional>

namespace morvane::platform {

/// Turns SIGINT, SIGTERM and SIGHUP into a call on the main queue, so that a Ctrl-C or a
/// stop by the service manager ends the event loop in order instead of killing the process
/// mid-write. Needs the Qt event loop; call once from the main thread.
void onTerminationSignal(std::function<void(int signal)> handler);

}  // namespace morvane::platform
