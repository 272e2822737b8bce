// Deck commands, as far as this version goes: without a deck-control process each is refused.
#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "service/ManagerLib.h"

#include <cstring>

namespace {

constexpr const char* MODULE = "Manager";

} // namespace

void CManagerLib::VTRCmdRequestCallbackFn(CallbackLib::_Data* data) {
    _VTRCmdData record;
    std::memcpy(&record, data->data, sizeof record);
    static_cast<CManagerLib*>(data->context)->handleVTRCmdRequest(record);
}

// A worker's request: the answer goes to its own queue at once, so that it does not wait for a deck.
void CManagerLib::handleVTRCmdRequest(_VTRCmdData record) {
    record.errorCode = static_cast<std::int32_t>(kestrel::error::vtrSendQueueMissing);
    kestrel::copyText(record.errorText, LOG_MSG(kestrel::error::vtrSendQueueMissing));
    LogUtil::Error(MODULE, "%s", record.errorText);
    record.replyQueueName[sizeof record.replyQueueName - 1] = '\0';
    if (record.replyQueueName[0] != '\0')
        SendQueueMessage(record.replyQueueName, VTR_CMD_RESPONSE_MSG, &record, sizeof record);
}

int CManagerLib::sendVTRCmdRequestBlocking(_VTRCmdData* record) {
    MutexLock lock(m_vtrMsgMutex);
    record->replyQueueName[0] = '\0';
    record->errorCode = static_cast<std::int32_t>(kestrel::error::vtrSendQueueMissing);
    kestrel::copyText(record->errorText, LOG_MSG(kestrel::error::vtrSendQueueMissing));
    LogUtil::Error(MODULE, "%s", record->errorText);
    return record->errorCode;
}
