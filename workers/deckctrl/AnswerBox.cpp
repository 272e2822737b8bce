#include "AnswerBox.h"

#include "Limits.h"
#include "foundation/Logger.h"

namespace kestrel::deck {

void AnswerBox::put(const _VTRCmdData& answer) {
    {
        MutexLock lock(m_mutex);
        m_answers.push_back(answer);
        if (m_answers.size() > waitingAnswers) {
            const _VTRCmdData& oldest = m_answers.front();
            LogUtil::Error(
                "Deck",
                "The service does not read its queue: the answer to command %d, VTR at %.12s, is dropped",
                oldest.commandKind, oldest.serialPort);
            m_answers.pop_front();
        }
    }
    m_event.signal();
}

std::optional<_VTRCmdData> AnswerBox::take() {
    MutexLock lock(m_mutex);
    if (m_answers.empty())
        return std::nullopt;
    const _VTRCmdData answer = m_answers.front();
    m_answers.pop_front();
    return answer;
}

} // namespace kestrel::deck
