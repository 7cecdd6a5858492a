#ifndef TAMREL_PROPERTIES_SIMPLE_SIGNAL_H_
#define TAMREL_PROPERTIES_SIMPLE_SIGNAL_H_

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace simple_signal {

// An observer list shared by the host and the library. Strong slots are kept
// alive by the signal; weak slots stay connected only while whoever connected
// them keeps the callable alive, and are pruned during emission once expired.
//
// Thread-safety: connection and emission are serialised by the signal's own
// (non-recursive) mutex, held while slots run. A slot must not emit or connect
// to the signal that is calling it.
template <typename... Args>
class signal {
 public:
  using slot_type = std::function<void(Args...)>;

  signal() = default;
  signal(signal const&) = delete;
  signal& operator=(signal const&) = delete;

  // Runs every strong slot in connection order, then every live weak slot in
  // connection order, dropping expired weak slots in place. Each call gets its
  // own copies of the arguments. An empty callable throws std::bad_function_call
  // (the lock is released on the way out and later slots are not called).
  void operator()(Args... args) const {
    std::lock_guard<std::mutex> guard(lock_);
    for (auto const& slot : strongSlots) {
      if (slot) (*slot)(args...);
    }
    std::size_t kept = 0;
    for (std::size_t i = 0; i < weakSlots.size(); ++i) {
      std::shared_ptr<slot_type> live = weakSlots[i].lock();
      if (!live) continue;
      (*live)(args...);
      live.reset();
      if (kept != i) weakSlots[kept] = std::move(weakSlots[i]);
      ++kept;
    }
    weakSlots.erase(weakSlots.begin() + static_cast<std::ptrdiff_t>(kept), weakSlots.end());
  }

  // Adds a strong slot holding a copy of `f`.
  void connect(slot_type const& f) {
    auto slot = std::make_shared<slot_type>(f);
    std::lock_guard<std::mutex> guard(lock_);
    strongSlots.push_back(std::move(slot));
  }

  // Adds a weak slot: the signal keeps only a weak reference to `f`, so the slot
  // is connected for as long as the caller keeps `f` (or a copy of it) alive.
  void connectWeak(std::shared_ptr<slot_type> const& f) {
    std::weak_ptr<slot_type> slot = f;
    std::lock_guard<std::mutex> guard(lock_);
    weakSlots.push_back(std::move(slot));
  }

  mutable std::vector<std::weak_ptr<slot_type>> weakSlots;
  mutable std::vector<std::shared_ptr<slot_type>> strongSlots;

 private:
  mutable std::mutex lock_;
};

}  // namespace simple_signal

#endif  // TAMREL_PROPERTIES_SIMPLE_SIGNAL_H_
