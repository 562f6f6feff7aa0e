#include "core/execution/CurrentReplay.h"

namespace storage::overlayprovider {

namespace {

thread_local std::uint64_t replaying = 0;

}  // namespace

CurrentReplay::CurrentReplay(std::uint64_t serial) noexcept : previous_(replaying) {
  replaying = serial;
}

CurrentReplay::~CurrentReplay() { replaying = previous_; }

std::uint64_t CurrentReplay::serial() noexcept { return replaying; }

}  // namespace storage::overlayprovider
