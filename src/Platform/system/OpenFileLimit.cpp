#include "Platform/system/OpenFileLimit.h"

#include <algorithm>
#include <sys/resource.h>

namespace tessary {

void raiseOpenFileLimit() {
    constexpr rlim_t maxFiles = 65'536;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= maxFiles) return;
    limit.rlim_cur = std::min(limit.rlim_max, maxFiles);
    setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace tessary
