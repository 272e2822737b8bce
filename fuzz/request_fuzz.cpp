// Request lines and command lines, split into arguments.
#include "foundation/StringUtil.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string line(reinterpret_cast<const char*>(data), size);
    static char arguments[kestrel::maxArguments][kestrel::argumentCapacity];
    for (const char* separators : {",", " ", ", \t"}) {
        const int count = cStringUtil::getArgumentList(line.c_str(), arguments, separators);
        if (count < 0 || count > static_cast<int>(kestrel::maxArguments))
            std::abort();
    }
    return 0;
}
