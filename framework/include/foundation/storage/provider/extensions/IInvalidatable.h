// IInvalidatable: a provider that caches what it reads and can be told to drop it.
#pragma once

#include <foundation/storage/provider/StorageIRI.h>

namespace foundation::storage::provider::extensions {

class IInvalidatable {
 public:
  virtual ~IInvalidatable() = default;
  void invalidate(const StorageIRI& iri) { doInvalidate(iri); }

 protected:
  virtual void doInvalidate(const StorageIRI& iri) = 0;
};

}  // namespace foundation::storage::provider::extensions
