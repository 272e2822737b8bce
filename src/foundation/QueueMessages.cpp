#include "foundation/QueueMessages.h"

#include "foundation/FixedText.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

using kestrel::maxQueuePayload;
using kestrel::queueMessageHeader;

static_assert(sizeof(AppMsgType) == queueMessageHeader);

GenericMsg::GenericMsg(AppMsgType type, void* data, int size) {
    const int payload = data ? std::clamp(size, 0, maxQueuePayload) : 0;
    buffer = static_cast<unsigned char*>(std::malloc(static_cast<std::size_t>(queueMessageHeader + payload)));
    if (!buffer)
        return;
    length = queueMessageHeader + payload;
    std::memcpy(buffer, &type, sizeof type);
    if (payload > 0)
        std::memcpy(buffer + queueMessageHeader, data, static_cast<std::size_t>(payload));
}

GenericMsg::~GenericMsg() {
    std::free(buffer);
}

GenericFlatMsg::GenericFlatMsg(unsigned char* bytes, int length) {
    if (!bytes || length < queueMessageHeader)
        return;
    std::int32_t number = 0;
    std::memcpy(&number, bytes, sizeof number);
    type = static_cast<AppMsgType>(number);
    if (length == queueMessageHeader)
        return;
    const auto size = static_cast<std::size_t>(length - queueMessageHeader);
    payload = static_cast<unsigned char*>(std::malloc(size));
    if (!payload)
        return;
    payloadSize = length - queueMessageHeader;
    std::memcpy(payload, bytes + queueMessageHeader, size);
}

GenericFlatMsg::~GenericFlatMsg() {
    std::free(payload);
}

namespace kestrel {

bool answersRequest(const _VTRCmdData& answer, const _VTRCmdData& request) noexcept {
    if (answer.commandKind != request.commandKind ||
        fieldText(answer.serialPort) != fieldText(request.serialPort))
        return false;
    return answer.commandKind != vtrTransport || answer.transportCode == 0 ||
           answer.transportCode == request.transportCode;
}

} // namespace kestrel
