#include "core/journal/DurableBodies.h"

#include <unistd.h>

#include <system_error>
#include <vector>

namespace storage::overlayprovider {

void DurableBodies::note(Descriptor body) {
  if (!body) return;
  std::lock_guard lock(mutex_);
  noted_.insert(std::move(body));
}

bool DurableBodies::sync() {
  std::vector<Descriptor> bodies;
  {
    std::lock_guard lock(mutex_);
    bodies.assign(noted_.begin(), noted_.end());
    noted_.clear();
  }
  for (std::size_t i = 0; i < bodies.size(); ++i) {
    const int fd = bodies[i]->handle();
    if (fd == -1 || ::fdatasync(fd) == 0) continue;
    const int error = errno;
    std::lock_guard lock(mutex_);
    noted_.insert(bodies.begin() + static_cast<std::ptrdiff_t>(i), bodies.end());
    throw std::system_error(error, std::generic_category(), "fdatasync of a cached body");
  }
  return !bodies.empty();
}

}  // namespace storage::overlayprovider
