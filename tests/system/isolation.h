// Keeps a whole-program test from meeting another on the same host: queue names and settings files carry
// only the job id.
#pragma once

#include <string_view>

namespace kestrel::test {

// Gives the calling process an IPC namespace of its own (message queues) and a private /tmp where it may;
// else takes a host-wide lock that lasts until the process ends, and ends the process where a service runs
// whose names the tests would take. Call it before any thread is started.
void isolateHostNames();

// Removes the queues and settings files that a test has left on purpose, before the next of this program.
// Without namespaces of its own: those of this user whose job number is small, as a service's first are, and
// the deck queues that no service has. The lock keeps other tests of such names away.
void clearPrivateNames();

// Where the message queues of this process's IPC namespace are listed; throws where nothing lists them.
const char* queueDirectory();

// Whether a queue that is listed there is one of a service under test. Without namespaces of its own others
// are listed too, such as those of the tests of single jobs.
bool isServiceQueue(std::string_view name);

} // namespace kestrel::test
