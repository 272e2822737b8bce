// What the messages of a worker do to its job.
#pragma once

class GenericFlatMsg;
class Job;

namespace kestrel {

// Acts on one message from the worker of job. True when the worker says that it is about to end.
bool takeWorkerMessage(Job& job, const GenericFlatMsg& message);

} // namespace kestrel
