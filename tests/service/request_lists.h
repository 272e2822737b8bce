// Requests made from a list of words, as the processor makes them from a line.
#pragma once

#include "foundation/FixedText.h"
#include "service/RequestMessages.h"

#include <memory>
#include <string>
#include <vector>

inline std::unique_ptr<Message> request(const std::vector<std::string>& words) {
    char args[50][300] = {};
    for (std::size_t i = 0; i < words.size(); ++i)
        kestrel::copyText(args[i], words[i]);
    return std::unique_ptr<Message>(Message::createRequestMessage(args, static_cast<int>(words.size())));
}

template <typename Request>
Request& as(const std::unique_ptr<Message>& message) {
    return dynamic_cast<Request&>(*message);
}
