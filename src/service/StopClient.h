// The small client that tells a running service to end.
#pragma once

namespace kestrel {

// Sends "STOP_SERVICE" to this host's service on the profile's port and prints its answer. Returns the
// process's exit status: 0 (also when nothing answered within 30 s), or -1 after a line that says what
// failed.
int stopService();

} // namespace kestrel
