// The bundle manifest reader on any bytes: either a manifest whose fields satisfy the checks
// the reader promises, or BundleLoadError naming the bundle; nothing else may escape. An
// accepted manifest, written back as the smallest manifest holding its fields, is accepted
// again with the same fields.
#include "BundleManifest.h"
#include "FuzzSupport.h"

#include <foundation/host/BundleAbi.h>
#include <foundation/host/BundleLoadError.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <sstream>
#include <string>

namespace {

using boost::property_tree::ptree;
using foundation::host::BundleManifest;
using fuzzsupport::require;

const std::string kBundlePath = "fuzz/bundle.so";

bool isWordChar(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

bool isIdentifier(const std::string& text) {
  if (text.empty() || (text[0] >= '0' && text[0] <= '9')) return false;
  for (const char c : text) {
    if (!isWordChar(c)) return false;
  }
  return true;
}

// The smallest manifest that states `manifest`.
std::string manifestText(const BundleManifest& manifest) {
  const char separator = '/';
  ptree tree;
  tree.put(ptree::path_type("bundle.symbolic_name", separator), manifest.symbolicName);
  tree.put(ptree::path_type("scheme", separator), manifest.scheme);
  ptree component;
  component.put(ptree::path_type("implementation-class", separator), manifest.implementationClass);
  ptree interfaces, interface;
  interface.put_value(std::string(foundation::host::kContainerProviderFactoryInterface));
  interfaces.push_back({"", interface});
  component.put_child(ptree::path_type("service/interfaces", separator), interfaces);
  component.put(ptree::path_type("properties/scheme", separator), manifest.scheme);
  ptree components;
  components.push_back({"", component});
  tree.put_child(ptree::path_type("scr/components", separator), components);
  std::ostringstream out;
  boost::property_tree::write_json(out, tree);
  return out.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 8192) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  BundleManifest manifest;
  try {
    manifest = foundation::host::parseBundleManifest(text, kBundlePath);
  } catch (const foundation::host::BundleLoadError& error) {
    const std::string message = error.what();
    require(message.find(kBundlePath) != std::string::npos, "error names the bundle: " + message);
    return 0;
  }
  require(isIdentifier(manifest.symbolicName), "symbolic name is an identifier");
  require(!manifest.scheme.empty() && manifest.scheme.find_first_of("+:/") == std::string::npos,
          "scheme cannot compose or end a location's scheme: " + manifest.scheme);
  for (std::size_t start = 0;;) {
    const auto end = manifest.implementationClass.find("::", start);
    require(isIdentifier(manifest.implementationClass.substr(start, end - start)),
            "implementation class is a qualified name: " + manifest.implementationClass);
    if (end == std::string::npos) break;
    start = end + 2;
  }
  const std::string again = manifestText(manifest);
  BundleManifest reread;
  try {
    reread = foundation::host::parseBundleManifest(again, kBundlePath);
  } catch (const foundation::host::BundleLoadError& error) {
    fuzzsupport::fail(std::string("an accepted manifest written back is refused: ") + error.what());
  }
  require(reread.symbolicName == manifest.symbolicName && reread.scheme == manifest.scheme &&
              reread.implementationClass == manifest.implementationClass,
          "an accepted manifest written back reads the same");
  return 0;
}
