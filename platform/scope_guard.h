// Runs a callable when the scope that holds the guard ends, however it ends.
#ifndef ORV_PLATFORM_SCOPE_GUARD_H
#define ORV_PLATFORM_SCOPE_GUARD_H

#include <utility>

namespace orv {

template <typename Fn>
class ScopeGuard {
  public:
    explicit ScopeGuard(Fn fn) : fn_(std::move(fn)) {}
    ~ScopeGuard() {
        if (armed_) {
            fn_();
        }
    }
    ScopeGuard(const ScopeGuard&) = delete;
    ScopeGuard& operator=(const ScopeGuard&) = delete;

    // Leaves the clean-up undone, for a path that handed the resource on.
    void Dismiss() { armed_ = false; }

  private:
    Fn fn_;
    bool armed_ = true;
};

template <typename Fn>
ScopeGuard(Fn) -> ScopeGuard<Fn>;

}  // namespace orv

#endif  // ORV_PLATFORM_SCOPE_GUARD_H
