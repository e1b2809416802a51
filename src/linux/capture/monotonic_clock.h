// The one clock that stamps every stream (screen, microphone, camera), so they stay in sync.
#pragma once

#include <time.h>

#include "platform/media.h"

namespace gb::linuxp {

inline int64_t monotonicNanoseconds() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

inline MediaTime monotonicNow() { return MediaTime::fromNanoseconds(monotonicNanoseconds()); }

}  // namespace gb::linuxp
