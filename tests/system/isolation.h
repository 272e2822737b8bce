// Keeps a whole-program test from meeting another on the same host: queue names and settings files carry
// only the job id.
#pragma once

namespace kestrel::test {

// Gives the calling process an IPC namespace of its own (message queues) and a private /tmp where it may;
// else takes a host-wide lock that lasts until the process ends. Call it before any thread is started.
void isolateHostNames();

// Removes the queues and settings files that a test has left on purpose, before the next of this program.
// Does nothing without namespaces of its own: what lies there may be another's.
void clearPrivateNames();

// Where the message queues of this process's IPC namespace are listed.
const char* queueDirectory();

} // namespace kestrel::test
