/*
 * A flag or number that several threads read and write without a lock.
 *
 * Such values (the parameter store's switches and tuning numbers, a probe record's flags and
 * speed) are read and written whole, and no reader relies on them for ordering other memory:
 * a reader that sees a value one cycle old is fine. They are relaxed atomics, so the accesses
 * stay as cheap as plain loads and stores while being free of data races. The wrapper converts
 * to and from its value type, so code reads and assigns it like the plain field it replaces.
 */
#pragma once

#include <atomic>

namespace mlbd {

template <typename T>
class Relaxed {
  public:
    constexpr Relaxed(T value = T()) : value_(value) {}
    Relaxed(const Relaxed&) = delete;
    Relaxed& operator=(const Relaxed&) = delete;

    T load() const { return value_.load(std::memory_order_relaxed); }
    void store(T value) { value_.store(value, std::memory_order_relaxed); }
    operator T() const { return load(); }
    Relaxed& operator=(T value) {
        store(value);
        return *this;
    }
    // Read-modify-write steps are atomic as a whole.
    T exchange(T value) { return value_.exchange(value, std::memory_order_relaxed); }
    T operator++() { return value_.fetch_add(1, std::memory_order_relaxed) + 1; }
    T operator--() { return value_.fetch_sub(1, std::memory_order_relaxed) - 1; }
    T operator+=(T delta) { return value_.fetch_add(delta, std::memory_order_relaxed) + delta; }

  private:
    std::atomic<T> value_;
};

}  // namespace mlbd
