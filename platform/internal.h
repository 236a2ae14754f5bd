// Shared pieces of the platform layer's implementation. Not part of the
// surface: nothing outside platform/ includes this header.
#ifndef QLTFSDK_PLATFORM_INTERNAL_H
#define QLTFSDK_PLATFORM_INTERNAL_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/contain.h"
#include "platform/platform.h"

namespace qlt::plat {

// The one errno -> Windows error table. Nothing else looks at errno values.
DWORD ErrnoToWin(int err);
// Sets the thread's last error from errno and returns FALSE, for one-line
// failure returns.
BOOL FailErrno();
BOOL Fail(DWORD err);

// ---- Handles ----------------------------------------------------------------
// Every handle the layer gives out names one KObject through the handle table:
// the value is a table slot plus that slot's generation, never the object's
// address, so a closed or stale handle fails with ERROR_INVALID_HANDLE even
// after the slot is reused. Objects are reference-counted: the table holds
// one reference per open handle, and every call holds one while it uses the
// object (through Ref), so an object is destroyed only after CloseHandle and
// the last call in flight on it have both finished.
class KObject {
 public:
  KObject() = default;
  virtual ~KObject() = default;
  KObject(const KObject&) = delete;
  KObject& operator=(const KObject&) = delete;

  // Runs once per handle, on the thread that closes it, after the handle has
  // left the table (so no new call can reach the object through it). Calls
  // already in flight may still hold references. Returns CloseHandle's result.
  virtual BOOL OnClose() { return TRUE; }

  void AddRef() { m_nRefs.fetch_add(1, std::memory_order_relaxed); }
  void Release() {
    if (m_nRefs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  // True when the caller holds the only reference left.
  bool LastReference() const { return m_nRefs.load(std::memory_order_acquire) == 1; }

 private:
  std::atomic<int> m_nRefs{1};  // starts with the creator's reference
};

// A counted reference to an object of type T, released on destruction.
template <class T>
class Ref {
 public:
  Ref() = default;
  explicit Ref(T* p) : m_p(p) {}
  ~Ref() {
    if (m_p) m_p->Release();
  }
  Ref(Ref&& o) noexcept : m_p(o.m_p) { o.m_p = nullptr; }
  Ref& operator=(Ref&& o) noexcept {
    if (this != &o) {
      if (m_p) m_p->Release();
      m_p = o.m_p;
      o.m_p = nullptr;
    }
    return *this;
  }
  Ref(const Ref&) = delete;
  Ref& operator=(const Ref&) = delete;
  T* get() const { return m_p; }
  T* operator->() const { return m_p; }
  explicit operator bool() const { return m_p != nullptr; }

 private:
  T* m_p = nullptr;
};

// Enters obj in the table and returns its new handle; the table takes one
// reference (the caller keeps its own). Throws std::bad_alloc.
HANDLE InsertHandle(KObject* obj);
// A new reference to the object behind h, or null when h is not open.
KObject* ReferenceHandle(HANDLE h);
// Removes h from the table and hands the table's reference to the caller,
// or null when h is not open.
KObject* TakeHandle(HANDLE h);

// The open object of type T behind h, with a reference held for the call; an
// empty Ref with last error ERROR_INVALID_HANDLE when h is not an open handle
// of that type.
template <class T>
Ref<T> Lookup(HANDLE h) {
  KObject* o = ReferenceHandle(h);
  T* t = o ? dynamic_cast<T*>(o) : nullptr;
  if (!t) {
    if (o) o->Release();
    SetLastError(ERROR_INVALID_HANDLE);
  }
  return Ref<T>(t);
}

// Runs body and turns any exception into a failure: returns onFailure with
// the last error of QltCurrentExceptionError (platform/contain.h), the one
// mapping every layer uses. Every exported call whose work can throw runs
// inside it.
template <class R, class F>
R NoThrow(R onFailure, F&& body) noexcept {
  return QltContain(onFailure, std::forward<F>(body));
}
template <class F>
void NoThrowVoid(F&& body) noexcept {
  QltContainVoid(std::forward<F>(body));
}

// ---- Waiting --------------------------------------------------------------------
// All waitable state is guarded by one process-wide mutex (WaitLock). A
// waiting thread registers a Waiter with every object it waits on; a signal
// grants the waiter the index of the signalled object and wakes it. An
// auto-reset object grants at most one waiter and is then consumed.
struct Waiter {
  std::condition_variable cv;
  int granted = -1;  // index into the wait array, guarded by WaitLock()
};

struct Waitable : KObject {
  Waitable(bool manual, bool initial) : manualReset(manual), signaled(initial) {}
  const bool manualReset;
  bool signaled;                                 // guarded by WaitLock()
  std::vector<std::pair<Waiter*, int>> waiters;  // guarded by WaitLock()
};

std::mutex& WaitLock();
// Signals obj; WaitLock() must be held.
void SignalLocked(Waitable* obj);

// ---- Text ----------------------------------------------------------------------
// The conversions behind QltWideToUtf8 / QltUtf8ToWide, the only place where
// wide text and native names meet; these throw std::bad_alloc, for use inside
// NoThrow. ToUtf8Checked returns false when text held a code unit that no
// byte string stands for (it is written as U+FFFD), so a path holding one can
// be refused rather than renamed.
bool ToUtf8Checked(const wchar_t* text, std::string* out);
std::string ToUtf8(const wchar_t* text);
inline std::string ToUtf8(const std::wstring& text) { return ToUtf8(text.c_str()); }
std::wstring ToWide(const char* text);
inline std::wstring ToWide(const std::string& text) { return ToWide(text.c_str()); }
std::wstring WindowsPath(const std::string& nativePath);

// ---- Paths ----------------------------------------------------------------------
// Native path for a Windows-shaped one; false (last error ERROR_PATH_NOT_FOUND,
// ERROR_INVALID_PARAMETER, or ERROR_INVALID_NAME for text that no native name
// stands for) when it cannot be translated.
bool TranslatePath(LPCWSTR path, std::string* out);
// Directory holding the platform library's own file.
std::string PlatformDirectory();

// ---- Fault control --------------------------------------------------------------
namespace faults {
extern std::atomic<int> g_nArmed;  // number of armed rules; relaxed loads suffice
                                   // because a test arms before the calls it
                                   // targets, on a thread ordered before them.
struct Outcome {
  fault::Action action;
  DWORD error;
  DWORD shortBytes;
};
// True when a rule fires for this call; out receives what to do.
bool Match(unsigned op, const std::string& nativePath, HANDLE h, Outcome* out);
inline bool Armed() { return g_nArmed.load(std::memory_order_relaxed) != 0; }
// For calls named by a path alone: true (last error set to the rule's error)
// when an armed rule makes this call fail now.
bool InjectPathFault(unsigned op, const std::string& nativePath);
// Allocation points: throws std::bad_alloc when an armed kAlloc rule fires.
void CheckAlloc();
// Thread starts: throws std::system_error (resource unavailable) when an
// armed kThreadStart rule fires.
void CheckThreadStart();
}  // namespace faults

}  // namespace qlt::plat

#endif  // QLTFSDK_PLATFORM_INTERNAL_H
