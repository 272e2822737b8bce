// Turns one request line into one answer line.
#pragma once

#include "service/CSocketHelper.h"

// Holds no state between lines.
class CMessageProcessor : public IMessageProcessor {
public:
    // Always true. response gets "TRUE", "TRUE - %s" or "FALSE - %s", cut at responseSize.
    bool process(char* request, char* response, int responseSize) override;

    // Splits a request line at its commas into the 50 slots of args (see cStringUtil::getArgumentList).
    // Returns the number of arguments.
    static int getArgumentList(const char* line, char (*args)[300]);
};
