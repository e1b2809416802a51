// One-line accessors for the fakes' guarded fields: a copy read, or a write, under the mutex.
#pragma once

#include <mutex>
#include <utility>

namespace gb::fakes {

template <class T>
[[nodiscard]] T lockedCopy(std::mutex& mutex, const T& field) {
    std::lock_guard lock(mutex);
    return field;
}

template <class T, class V>
void lockedSet(std::mutex& mutex, T& field, V&& value) {
    std::lock_guard lock(mutex);
    field = std::forward<V>(value);
}

}  // namespace gb::fakes
