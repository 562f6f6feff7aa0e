// IRI and IRIArgs: a generic internationalised resource identifier, built from its parts.
//
// Only what the storage framework needs: a scheme, a path and the optional authority, query
// and fragment, all as UTF-8 text. StorageIRI is built from one (see StorageIRI.h).
#pragma once

#include <string>

namespace foundation::network {

struct IRIArgs {
  std::string scheme;
  std::string authority;
  std::string path;
  std::string query;
  std::string fragment;
};

class IRI {
 public:
  explicit IRI(IRIArgs args) : args_(std::move(args)) {}

  const std::string& getScheme() const { return args_.scheme; }
  const std::string& getAuthority() const { return args_.authority; }
  const std::string& getPath() const { return args_.path; }
  const std::string& getQuery() const { return args_.query; }
  const std::string& getFragment() const { return args_.fragment; }

 private:
  IRIArgs args_;
};

}  // namespace foundation::network
