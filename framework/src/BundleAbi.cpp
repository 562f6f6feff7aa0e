#include <foundation/host/BundleAbi.h>

namespace foundation::host {

namespace {

std::string withUnderscores(std::string_view qualifiedName) {
  std::string name;
  name.reserve(qualifiedName.size());
  for (std::size_t i = 0; i < qualifiedName.size(); ++i) {
    if (qualifiedName.compare(i, 2, "::") == 0) {
      name += '_';
      ++i;
    } else {
      name += qualifiedName[i];
    }
  }
  return name;
}

}  // namespace

std::string newInstanceSymbol(std::string_view implementationClass) {
  return "NewInstance_" + withUnderscores(implementationClass);
}

std::string deleteInstanceSymbol(std::string_view implementationClass) {
  return "DeleteInstance_" + withUnderscores(implementationClass);
}

std::string bundleContextSetterSymbol(std::string_view symbolicName) {
  return "_us_set_bundle_context_instance_" + std::string(symbolicName);
}

}  // namespace foundation::host
