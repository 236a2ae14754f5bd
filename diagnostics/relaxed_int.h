// A 32-bit setting that several threads may read while one thread stores a
// new value.
#ifndef QLTFSDK_DIAGNOSTICS_RELAXED_INT_H
#define QLTFSDK_DIAGNOSTICS_RELAXED_INT_H

#include <atomic>
#include <cstdint>

// Reads and assigns like an int. Every access is a relaxed atomic load or
// store: a reader sees either the old or the new value, never a torn one, and
// no ordering with other memory is implied. That is all the settings need:
// each field is an independent switch or size, read afresh at each use, and
// nothing else is published through it. Constant-initialised, so it is ready
// before any load-time code runs. Any thread may read or assign.
class CRelaxedInt {
 public:
  constexpr explicit CRelaxedInt(int32_t nValue) : m_nValue(nValue) {}
  CRelaxedInt(const CRelaxedInt&) = delete;
  CRelaxedInt& operator=(const CRelaxedInt&) = delete;

  operator int32_t() const { return m_nValue.load(std::memory_order_relaxed); }  // NOLINT
  CRelaxedInt& operator=(int32_t nValue) {
    m_nValue.store(nValue, std::memory_order_relaxed);
    return *this;
  }

 private:
  std::atomic<int32_t> m_nValue;  // relaxed atomic: see the class comment
};

#endif  // QLTFSDK_DIAGNOSTICS_RELAXED_INT_H
