// Running the service detached.
#pragma once

namespace kestrel {

// Detaches the process, runs the service and exits. The caller's process exits with 0 at once, or with 255
// after a line on standard output that says what failed.
[[noreturn]] void runDetached();

} // namespace kestrel
