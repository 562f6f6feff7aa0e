// IConfigurableProvider: a provider that accepts a configuration tree from its host.
// configure() may be called on any thread, before or after other operations.
#pragma once

#include <foundation/storage/provider/IProvider.h>

#include <boost/property_tree/ptree.hpp>

namespace foundation::storage::provider {

class IConfigurableProvider : public IProvider {
 public:
  void configure(boost::property_tree::ptree config) { doConfigure(std::move(config)); }

 protected:
  virtual void doConfigure(boost::property_tree::ptree config) = 0;
};

}  // namespace foundation::storage::provider
