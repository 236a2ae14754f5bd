// Registry of live handles, and CloseHandle for every kind of handle.
#include <mutex>
#include <unordered_set>

#include "platform/internal.h"

namespace qlt::plat {
namespace {

struct Registry {
  std::mutex lock;
  std::unordered_set<KObject*> live;  // guarded by lock
};

Registry& Handles() {
  static Registry* r = new Registry;  // never destroyed: handles may close during exit
  return *r;
}

}  // namespace

void RegisterHandle(KObject* obj) {
  Registry& r = Handles();
  std::lock_guard<std::mutex> g(r.lock);
  r.live.insert(obj);
}

KObject* UnregisterHandle(HANDLE h) {
  Registry& r = Handles();
  std::lock_guard<std::mutex> g(r.lock);
  auto it = r.live.find(static_cast<KObject*>(h));
  if (it == r.live.end()) return nullptr;
  KObject* obj = *it;
  r.live.erase(it);
  return obj;
}

KObject* LookupHandle(HANDLE h, Kind kind) {
  if (h == nullptr || h == INVALID_HANDLE_VALUE) {
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  Registry& r = Handles();
  std::lock_guard<std::mutex> g(r.lock);
  auto it = r.live.find(static_cast<KObject*>(h));
  if (it == r.live.end() || (*it)->kind != kind) {
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  return *it;
}

// Implemented beside each kind.
BOOL CloseFileObject(KObject* obj);
void CloseThreadObject(ThreadObject* obj);

}  // namespace qlt::plat

using namespace qlt::plat;

extern "C" BOOL CloseHandle(HANDLE h) {
  KObject* obj = (h == nullptr || h == INVALID_HANDLE_VALUE) ? nullptr : UnregisterHandle(h);
  if (!obj) return Fail(ERROR_INVALID_HANDLE);
  switch (obj->kind) {
    case Kind::kFile: return CloseFileObject(obj);
    case Kind::kThread: CloseThreadObject(static_cast<ThreadObject*>(obj)); return TRUE;
    case Kind::kEvent:
    case Kind::kFind: delete obj; return TRUE;
  }
  return TRUE;
}
