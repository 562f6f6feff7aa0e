#include "core/journal/DurableBodies.h"

#include <unistd.h>

#include <system_error>
#include <vector>

namespace storage::overlayprovider {

void DurableBodies::note(Descriptor body) {
  if (!body) return;
  std::lock_guard lock(mutex_);
  if (tooMany_) return;
  noted_.insert(std::move(body));
  if (noted_.size() <= kMostBodies) return;
  noted_.clear();
  tooMany_ = true;
}

bool DurableBodies::sync(int onFileSystem) {
  std::vector<Descriptor> bodies;
  bool tooMany = false;
  {
    std::lock_guard lock(mutex_);
    bodies.assign(noted_.begin(), noted_.end());
    noted_.clear();
    std::swap(tooMany, tooMany_);
  }
  if (tooMany) {
    if (::syncfs(onFileSystem) == 0) return true;
    const int error = errno;
    std::lock_guard lock(mutex_);
    tooMany_ = true;
    throw std::system_error(error, std::generic_category(), "syncfs of the content cache");
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
