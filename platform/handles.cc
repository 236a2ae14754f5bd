// The handle table, CloseHandle, and the translation of exceptions into last
// errors.
//
// A handle value is (generation << 32) | (slot + 1) << 2: never null, never
// INVALID_HANDLE_VALUE, a multiple of four as on Windows. Freed slots go to
// the back of a FIFO list and their generation moves on, so a slot comes back
// only after every other free slot has been used, and a stale handle's
// generation no longer matches even then (until the 32-bit generation of that
// one slot wraps, after 2^32 reuses).
#include <cerrno>
#include <new>
#include <vector>

#include "platform/internal.h"

namespace qlt::plat {
namespace {

constexpr uint32_t kNone = 0xFFFFFFFFu;

struct Slot {
  KObject* obj = nullptr;  // the table's reference; null when free
  uint32_t gen = 1;
  uint32_t nextFree = kNone;  // next slot of the free list
};

// Free slots form a FIFO list threaded through the slots themselves, so
// closing a handle never allocates.
struct Table {
  CRITICAL_SECTION lock;
  std::vector<Slot> slots GUARDED_BY(lock);
  uint32_t freeHead GUARDED_BY(lock) = kNone;  // oldest free slot
  uint32_t freeTail GUARDED_BY(lock) = kNone;  // newest free slot
};

Table& Handles() {
  static Table* t = new Table;  // never destroyed: handles may close during exit
  return *t;
}

HANDLE Encode(uint32_t index, uint32_t gen) {
  uint64_t v = (static_cast<uint64_t>(gen) << 32) | (static_cast<uint64_t>(index + 1) << 2);
  return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(v));
}

// The slot h names, or false for a value this table never gave out.
bool Decode(HANDLE h, uint32_t* index, uint32_t* gen) {
  auto v = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(h));
  uint32_t low = static_cast<uint32_t>(v);
  if (h == nullptr || h == INVALID_HANDLE_VALUE || (low & 3) != 0 || low == 0) return false;
  *index = (low >> 2) - 1;
  *gen = static_cast<uint32_t>(v >> 32);
  return true;
}

// The slot h names when it is open, else null.
Slot* OpenSlotLocked(Table& t, HANDLE h) REQUIRES(t.lock) {
  uint32_t index, gen;
  if (!Decode(h, &index, &gen) || index >= t.slots.size()) return nullptr;
  Slot& s = t.slots[index];
  return (s.obj && s.gen == gen) ? &s : nullptr;
}

}  // namespace

HANDLE InsertHandle(KObject* obj) {
  faults::CheckAlloc();
  Table& t = Handles();
  CAutoLock g(&t.lock);
  uint32_t index;
  if (t.freeHead != kNone) {
    index = t.freeHead;
    t.freeHead = t.slots[index].nextFree;
    if (t.freeHead == kNone) t.freeTail = kNone;
  } else {
    if (t.slots.size() >= (1u << 29)) throw std::bad_alloc();
    t.slots.emplace_back();  // the only step that can throw; nothing changed yet
    index = static_cast<uint32_t>(t.slots.size() - 1);
  }
  Slot& s = t.slots[index];
  obj->AddRef();
  s.obj = obj;
  return Encode(index, s.gen);
}

KObject* ReferenceHandle(HANDLE h) {
  Table& t = Handles();
  CAutoLock g(&t.lock);
  Slot* s = OpenSlotLocked(t, h);
  if (!s) return nullptr;
  s->obj->AddRef();
  return s->obj;
}

KObject* TakeHandle(HANDLE h) {
  Table& t = Handles();
  CAutoLock g(&t.lock);
  Slot* s = OpenSlotLocked(t, h);
  if (!s) return nullptr;
  KObject* obj = s->obj;
  s->obj = nullptr;
  ++s->gen;
  if (s->gen == 0) s->gen = 1;
  auto index = static_cast<uint32_t>(s - t.slots.data());
  s->nextFree = kNone;
  if (t.freeTail == kNone)
    t.freeHead = index;
  else
    t.slots[t.freeTail].nextFree = index;
  t.freeTail = index;
  return obj;
}

}  // namespace qlt::plat

using namespace qlt::plat;

BOOL qlt::win::CloseHandle(HANDLE h) {
  KObject* obj = TakeHandle(h);
  if (!obj) return Fail(ERROR_INVALID_HANDLE);
  BOOL ok = obj->OnClose();
  DWORD err = GetLastError();
  obj->Release();
  if (!ok) SetLastError(err);
  return ok;
}
