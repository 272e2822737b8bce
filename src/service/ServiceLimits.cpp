#include "service/ServiceLimits.h"

#include "foundation/Logger.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/resource.h>

namespace kestrel {

namespace {

constexpr const char* MODULE = "Manager";
// Wanted: room for a thousand jobs at once, each with two queues of ten messages of 1000 bytes and the
// kernel's own share, and the descriptors to go with them.
constexpr rlim_t QUEUE_BYTES = 1000UL * 2 * 16'384;
constexpr rlim_t DESCRIPTORS = 20'000;

void raise(__rlimit_resource_t resource, const char* name, rlim_t wanted) {
    rlimit limit{};
    if (getrlimit(resource, &limit) != 0) {
        LogUtil::Warning(MODULE, "Limit %s cannot be read: errno %d (%s)", name, errno, std::strerror(errno));
        return;
    }
    if (limit.rlim_cur < wanted) {
        // First as root may, above the hard limit, else up to it.
        const rlimit whole{wanted, std::max(limit.rlim_max, wanted)};
        const rlimit part{std::min(limit.rlim_max, wanted), limit.rlim_max};
        if (setrlimit(resource, &whole) != 0 && setrlimit(resource, &part) != 0)
            LogUtil::Warning(MODULE, "Limit %s cannot be raised: errno %d (%s)", name, errno,
                             std::strerror(errno));
        getrlimit(resource, &limit);
    }
    if (limit.rlim_cur < wanted)
        LogUtil::Warning(MODULE, "Limit %s: wanted %lu, got %lu: fewer jobs can run at once", name,
                         static_cast<unsigned long>(wanted), static_cast<unsigned long>(limit.rlim_cur));
    else
        LogUtil::Info(MODULE, "Limit %s: %lu, wanted %lu", name, static_cast<unsigned long>(limit.rlim_cur),
                      static_cast<unsigned long>(wanted));
}

} // namespace

void raiseServiceLimits() {
    raise(RLIMIT_MSGQUEUE, "RLIMIT_MSGQUEUE (bytes)", QUEUE_BYTES);
    raise(RLIMIT_NOFILE, "RLIMIT_NOFILE (descriptors)", DESCRIPTORS);
}

} // namespace kestrel
