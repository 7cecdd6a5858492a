#ifndef TAMREL_AGENT_BASE_MEMORYBUDGET_H_
#define TAMREL_AGENT_BASE_MEMORYBUDGET_H_

#include <cstdint>

// Bounds how much heap one operation of the library may take. The library
// keeps a poll's answers in memory whatever their size and parses them with
// cJSON, and a transfer over a fast link ends long before any periodic check
// of the process's size. So the agent counts, as it happens, every byte held
// through C++ allocations (its own `operator new`) and through cJSON (hooks
// installed by install()). While a MemoryBudget lives, growth past its bound calls
// `onExceeded` once, on the allocating thread, and cJSON gets no more memory,
// which ends a parse as unreadable. C++ allocations are never refused.
// (valgrind replaces `operator new` with its own: there only cJSON counts.)
class MemoryBudget {
 public:
  // Makes cJSON allocate through the counter. Call once, before any cJSON use.
  static void install();

  // `onExceeded(context)` must neither allocate nor block: it runs inside an
  // allocation. One budget at a time.
  MemoryBudget(std::int64_t bytes, void (*onExceeded)(void*), void* context);
  ~MemoryBudget();
  MemoryBudget(MemoryBudget const&) = delete;
  MemoryBudget& operator=(MemoryBudget const&) = delete;

  bool exceeded() const;
};

#endif  // TAMREL_AGENT_BASE_MEMORYBUDGET_H_
