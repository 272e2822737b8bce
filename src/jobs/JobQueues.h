// Why a message queue could not be created.
#pragma once

#include <string>

namespace kestrel {

// The limit or rule of the host that createMsgQueue met, as " (limit met: ...)", for the errno it left.
std::string describeQueueFailure(int error);

} // namespace kestrel
