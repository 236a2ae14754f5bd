// The test-only fault control.
#if !defined(_WIN32)
#include <fnmatch.h>
#endif

#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/internal.h"

namespace qlt::plat::faults {

std::atomic<int> g_nArmed{0};

namespace {

struct ArmedRule {
  int id;
  qlt::fault::Rule rule;
  std::string pattern;  // native form of rule.pathPattern
  int seen = 0;         // matching calls so far
  int fired = 0;        // calls affected so far
};

struct Rules {
  CRITICAL_SECTION lock;
  std::vector<ArmedRule> rules GUARDED_BY(lock);
  int nextId GUARDED_BY(lock) = 1;
};

Rules& All() {
  static Rules* r = new Rules;
  return *r;
}

std::string NativePattern(const std::wstring& w) {
  std::string p = ToUtf8(w);
  for (char& c : p)
    if (c == '\\') c = '/';
  return p;
}

#if defined(_WIN32)
// '*' (any run, '/' included) and '?' (one character); no escapes, so the
// backslashes of Windows paths need none.
bool Glob(const char* p, const char* s) {
  const char* star = nullptr;
  const char* resume = nullptr;
  while (*s) {
    if (*p == '*') {
      star = p++;
      resume = s;
    } else if (*p == '?' || *p == *s) {
      ++p;
      ++s;
    } else if (star) {
      p = star + 1;
      s = ++resume;
    } else {
      return false;
    }
  }
  while (*p == '*') ++p;
  return *p == 0;
}
#else
bool Glob(const char* p, const char* s) { return fnmatch(p, s, 0) == 0; }
#endif

}  // namespace

bool Match(unsigned op, const std::string& nativePath, HANDLE h, Outcome* out) {
  DWORD delay = 0;
  bool act = false;
  {
    Rules& r = All();
    CAutoLock g(&r.lock);
    for (ArmedRule& a : r.rules) {
      if (!(a.rule.ops & op)) continue;
      if (a.rule.handle && a.rule.handle != h) continue;
      if (!a.pattern.empty() && !Glob(a.pattern.c_str(), nativePath.c_str())) continue;
      ++a.seen;
      if (a.seen < a.rule.nth) continue;
      if (a.rule.times >= 0 && a.seen >= a.rule.nth + a.rule.times) continue;
      ++a.fired;
      if (a.rule.action == qlt::fault::Action::kDelay) {
        delay += a.rule.delayMs;
        continue;
      }
      out->action = a.rule.action;
      out->error = a.rule.error;
      out->shortBytes = a.rule.shortBytes;
      act = true;
      break;
    }
  }
  if (delay) std::this_thread::sleep_for(std::chrono::milliseconds(delay));
  return act;
}

bool InjectPathFault(unsigned op, const std::string& nativePath) {
  if (!Armed()) return false;
  Outcome o{};
  if (!Match(op, nativePath, nullptr, &o) || o.action != fault::Action::kFail) return false;
  SetLastError(o.error);
  return true;
}

void CheckAlloc() {
  if (!Armed()) return;
  Outcome o{};
  if (Match(fault::kAlloc, std::string(), nullptr, &o) && o.action != fault::Action::kDelay) throw std::bad_alloc();
}

void CheckThreadStart() {
  if (!Armed()) return;
  Outcome o{};
  if (Match(fault::kThreadStart, std::string(), nullptr, &o) && o.action != fault::Action::kDelay)
    throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
}

}  // namespace qlt::plat::faults

namespace qlt::fault {

using plat::faults::All;
using plat::faults::g_nArmed;

int Arm(const Rule& rule) {
  auto& r = All();
  CAutoLock g(&r.lock);
  int id = r.nextId++;
  r.rules.push_back(plat::faults::ArmedRule{id, rule, plat::faults::NativePattern(rule.pathPattern)});
  g_nArmed.fetch_add(1, std::memory_order_relaxed);
  return id;
}

void Disarm(int id) {
  auto& r = All();
  CAutoLock g(&r.lock);
  for (size_t i = 0; i < r.rules.size(); ++i)
    if (r.rules[i].id == id) {
      r.rules.erase(r.rules.begin() + static_cast<long>(i));
      g_nArmed.fetch_sub(1, std::memory_order_relaxed);
      return;
    }
}

void DisarmAll() {
  auto& r = All();
  CAutoLock g(&r.lock);
  g_nArmed.fetch_sub(static_cast<int>(r.rules.size()), std::memory_order_relaxed);
  r.rules.clear();
}

std::atomic<int> g_nAllocArmedThreads{0};

namespace {
thread_local int t_nAllocCountdown = 0;  // 0: this thread is not armed
thread_local bool t_bAllocFired = false;
}  // namespace

void ArmAllocFailure(int nNth) {
  DisarmAllocFailure();
  if (nNth <= 0) return;
  t_bAllocFired = false;
  t_nAllocCountdown = nNth;
  g_nAllocArmedThreads.fetch_add(1, std::memory_order_relaxed);
}

void DisarmAllocFailure() {
  if (t_nAllocCountdown == 0) return;
  t_nAllocCountdown = 0;
  g_nAllocArmedThreads.fetch_sub(1, std::memory_order_relaxed);
}

bool AllocFailureFired() { return t_bAllocFired; }

bool TakeAllocFailure() {
  if (t_nAllocCountdown <= 0 || --t_nAllocCountdown != 0) return false;
  // The armed allocation fails; the thread stays counted as armed (the
  // countdown is spent) until it disarms.
  t_nAllocCountdown = -1;
  t_bAllocFired = true;
  return true;
}

int Fired(int id) {
  auto& r = All();
  CAutoLock g(&r.lock);
  for (const auto& a : r.rules)
    if (a.id == id) return a.fired;
  return 0;
}

}  // namespace qlt::fault
