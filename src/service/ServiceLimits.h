// The system's limits on what many jobs at once need.
#pragma once

namespace kestrel {

// Raises this process's limits on message queues and descriptors as far as it may, and logs what it got.
void raiseServiceLimits();

} // namespace kestrel
