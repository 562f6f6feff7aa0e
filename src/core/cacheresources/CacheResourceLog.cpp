#include "core/cacheresources/CacheResourceLog.h"

#include <foundation/crypto/Digest.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <sstream>

namespace storage::overlayprovider {

std::string cacheFileName(const foundation::storage::provider::StorageIRI& iri) {
  // toString() is already UTF-8, the form the digest is defined over.
  return foundation::crypto::blake2b512Base64Url(iri.toString()) + ".cache";
}

std::string makeLogRecord(const std::string& level, const std::string& message,
                          const foundation::storage::provider::StorageIRI& iri,
                          const boost::filesystem::path& checkoutPath) {
  try {
    const std::string prefix = "overlay." + level + ".";
    boost::property_tree::ptree tree;
    tree.put(prefix + "message", message);
    tree.put(prefix + "location", iri.toString());
    tree.put(prefix + "checkoutPath", checkoutPath.string());
    std::ostringstream text;
    boost::property_tree::write_json(text, tree, false);
    std::string record = text.str();
    // The writer ends even compact output with a newline; a log message should not.
    while (!record.empty() && record.back() == '\n') record.pop_back();
    return record;
  } catch (...) {
    return {};
  }
}

}  // namespace storage::overlayprovider
