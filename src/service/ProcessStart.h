// What this process must not take over from the one that started it.
#pragma once

namespace kestrel {

// The first thing in main: opens standard streams that are closed on /dev/null, so that no log or socket gets
// their numbers, and gives back to the signals that the service lives on what a parent has ignored or
// blocked.
void prepareProcess();

} // namespace kestrel
