// Turns one request line into one answer line.
#pragma once

#include "service/CSocketHelper.h"

// Holds no state between lines.
class CMessageProcessor : public IMessageProcessor {
public:
    // Always true. response gets "TRUE", "TRUE - %s" or "FALSE - %s", cut at responseSize.
    bool process(char* request, char* response, int responseSize) override;
};
