#include "core/cacheresources/CacheResourceLog.h"

#include <foundation/crypto/Digest.h>

#include <array>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <sstream>

namespace storage::overlayprovider {

std::string cacheFileName(const foundation::storage::provider::StorageIRI& iri) {
  // One operation names the same body several times (a move checks the destination's name,
  // then renames the body to it; a removal disposes of the body its entry then forgets), and
  // the digest with its encoding costs a few microseconds each time: each thread remembers
  // the last few names it made.
  struct Made {
    foundation::storage::provider::StorageIRI iri;
    std::string name;
  };
  thread_local std::array<Made, 4> recent;
  thread_local std::size_t next = 0;
  for (const auto& made : recent) {
    if (!made.name.empty() && made.iri == iri) return made.name;
  }
  // toString() is already UTF-8, the form the digest is defined over.
  auto name = foundation::crypto::blake2b512Base64Url(iri.toString()) + ".cache";
  recent[next] = Made{iri, name};
  next = (next + 1) % recent.size();
  return name;
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
