#include "agent/base/memorybudget.h"

#include <cjson/cJSON.h>
#include <malloc.h>
#include <stdlib.h>

#include <atomic>
#include <cstddef>
#include <limits>
#include <new>

namespace {

constexpr std::int64_t kUnbounded = std::numeric_limits<std::int64_t>::max();

std::atomic<std::int64_t> held{0};
std::atomic<std::int64_t> limit{kUnbounded};
std::atomic<bool> overrun{false};
std::atomic<void (*)(void*)> onExceeded{nullptr};
std::atomic<void*> context{nullptr};

// Counts a new block; true while it is within the budget. The first block
// past it calls the budget's callback.
bool counted(void* block) {
  if (block == nullptr) return true;
  std::int64_t const now = held += static_cast<std::int64_t>(malloc_usable_size(block));
  if (now <= limit.load(std::memory_order_relaxed)) return true;
  if (!overrun.exchange(true)) {
    if (void (*call)(void*) = onExceeded.load()) call(context.load());
  }
  return false;
}

void released(void* block) {
  if (block == nullptr) return;
  held -= static_cast<std::int64_t>(malloc_usable_size(block));
  free(block);
}

void* newBlock(std::size_t size, std::size_t alignment) {
  for (;;) {
    void* block = nullptr;
    if (alignment <= alignof(std::max_align_t)) {
      block = malloc(size == 0 ? 1 : size);
    } else if (posix_memalign(&block, alignment, size == 0 ? alignment : size) != 0) {
      block = nullptr;
    }
    if (block != nullptr) {
      counted(block);
      return block;
    }
    std::new_handler const handler = std::get_new_handler();
    if (handler == nullptr) return nullptr;
    handler();
  }
}

// A new-handler may throw bad_alloc; the nothrow forms must not let it out.
void* nothrowNew(std::size_t size, std::size_t alignment) noexcept {
  try {
    return newBlock(size, alignment);
  } catch (...) {
    return nullptr;
  }
}

void* throwingNew(std::size_t size, std::size_t alignment) {
  void* const block = newBlock(size, alignment);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

// cJSON's allocations past the budget are refused.
void* cjsonMalloc(std::size_t size) {
  if (overrun.load(std::memory_order_relaxed)) return nullptr;
  void* const block = malloc(size);
  if (counted(block)) return block;
  released(block);
  return nullptr;
}

}  // namespace

void MemoryBudget::install() {
  cJSON_Hooks hooks{cjsonMalloc, released};
  cJSON_InitHooks(&hooks);
}

MemoryBudget::MemoryBudget(std::int64_t bytes, void (*callback)(void*), void* argument) {
  overrun = false;
  onExceeded = callback;
  context = argument;
  limit = held.load() + bytes;
}

MemoryBudget::~MemoryBudget() {
  limit = kUnbounded;
  onExceeded = nullptr;
  overrun = false;
}

bool MemoryBudget::exceeded() const { return overrun.load(); }

// Every C++ allocation of the process, the plug-in's included, goes through
// these.
void* operator new(std::size_t size) { return throwingNew(size, 0); }
void* operator new[](std::size_t size) { return throwingNew(size, 0); }
void* operator new(std::size_t size, std::align_val_t alignment) {
  return throwingNew(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return throwingNew(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, std::nothrow_t const&) noexcept { return nothrowNew(size, 0); }
void* operator new[](std::size_t size, std::nothrow_t const&) noexcept {
  return nothrowNew(size, 0);
}
void* operator new(std::size_t size, std::align_val_t alignment, std::nothrow_t const&) noexcept {
  return nothrowNew(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment, std::nothrow_t const&) noexcept {
  return nothrowNew(size, static_cast<std::size_t>(alignment));
}
void operator delete(void* block) noexcept { released(block); }
void operator delete[](void* block) noexcept { released(block); }
void operator delete(void* block, std::size_t) noexcept { released(block); }
void operator delete[](void* block, std::size_t) noexcept { released(block); }
void operator delete(void* block, std::align_val_t) noexcept { released(block); }
void operator delete[](void* block, std::align_val_t) noexcept { released(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { released(block); }
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept { released(block); }
void operator delete(void* block, std::nothrow_t const&) noexcept { released(block); }
void operator delete[](void* block, std::nothrow_t const&) noexcept { released(block); }
void operator delete(void* block, std::align_val_t, std::nothrow_t const&) noexcept {
  released(block);
}
void operator delete[](void* block, std::align_val_t, std::nothrow_t const&) noexcept {
  released(block);
}
