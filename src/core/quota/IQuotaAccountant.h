// IQuotaAccountant: the overlay's estimate of how much space its inner store still has.
//
// The overlay answers storage-information queries at once although its writes reach the
// inner store later, so it keeps its own figures: learned from the inner store from time to
// time and adjusted locally in between (what the overlay adds to the store's occupied space
// takes space; truncations down, files and folder trees that disappear give it back; see
// QuotaAccountant.h for why overwrites take none).
//
// Ownership: the provider holds its accountant by std::shared_ptr; the event listener that
// adjusts it shares it. Threads: every operation may be called from any thread. The figures
// are empty until the inner store has answered once.
#pragma once

#include <foundation/storage/provider/StorageIRI.h>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace storage::overlayprovider {

class IQuotaAccountant {
 public:
  virtual ~IQuotaAccountant() = default;

  // Bytes still available by the current estimate.
  virtual std::optional<std::uint64_t> getSpaceAvailable() = 0;
  // The inner store's capacity as it last reported it.
  virtual std::optional<std::uint64_t> getTotalQuota() = 0;
  // Ends the background refresh of the figures; later calls do nothing.
  virtual void stop() = 0;
  // The file (an overlay location) is going away: its bytes become available again.
  virtual void removeFile(const foundation::storage::provider::StorageIRI& file) = 0;
  // The folder tree is going away: the bytes of every file under it become available.
  virtual void removeFolderTree(const foundation::storage::provider::StorageIRI& folder) = 0;
  // A folder tree has appeared: the bytes of its files are taken from the estimate.
  virtual void addFolderTree(const foundation::storage::provider::StorageIRI& folder) = 0;
  // Bytes written through the overlay are taken from the estimate.
  virtual void addBytesWritten(std::size_t bytes) = 0;
  // A change made a file `bytes` larger (a write past its end, an extending truncation, a new
  // file's size): the store will occupy that much more.
  virtual void addGrowth(std::uint64_t bytes) = 0;
  // A change made a file `bytes` smaller (a truncation down): that much becomes available.
  virtual void releaseSpace(std::uint64_t bytes) = 0;
};

}  // namespace storage::overlayprovider
