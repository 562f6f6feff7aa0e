// Naming and log-record helpers shared by the cache resources.
//
// cacheFileName: the name under the cache directory of the local body of one location.
// makeLogRecord: the JSON text of a cache resource's error and debug log records, naming the
// location and the local body concerned, so that records can be read by machines.
//
// Free functions without state; safe to call from any thread.
#pragma once

#include <foundation/storage/provider/StorageIRI.h>

#include <boost/filesystem/path.hpp>
#include <string>

namespace storage::overlayprovider {

// "<digest>.cache", where <digest> is the URL-safe Base64 (RFC 4648 "base64url") text of the
// Blake2b-512 digest of the location's UTF-8 text form. The Base64 text carries NO "="
// padding: the 64-byte digest always gives 86 characters, so padding would add nothing but
// two characters to every name, and these names are what bodies are stored under on disk —
// changing the encoding would orphan every body already cached.
std::string cacheFileName(const foundation::storage::provider::StorageIRI& iri);

// Compact JSON (one line, no trailing newline):
//   {"overlay":{"<level>":{"message":..,"location":..,"checkoutPath":..}}}
// where location is the UTF-8 text form of `iri` and checkoutPath the path's native text.
// Returns "" if the record cannot be built (a log line must never throw).
std::string makeLogRecord(const std::string& level, const std::string& message,
                          const foundation::storage::provider::StorageIRI& iri,
                          const boost::filesystem::path& checkoutPath);

}  // namespace storage::overlayprovider
