#include "BundleManifest.h"

#include <foundation/host/BundleAbi.h>
#include <foundation/host/BundleLoadError.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <regex>
#include <sstream>

namespace foundation::host {

namespace {

using boost::property_tree::ptree;

// Manifest keys hold dots ("bundle.symbolic_name"), so paths are separated by "/".
ptree::path_type key(const std::string& path) { return ptree::path_type(path, '/'); }

class ManifestReader {
 public:
  ManifestReader(const ptree& tree, const std::string& bundlePath)
      : tree_(tree), bundlePath_(bundlePath) {}

  [[noreturn]] void fail(const std::string& problem) const {
    throw BundleLoadError(bundlePath_, "manifest.json: " + problem);
  }

  // The text of the leaf at `path`, which must match `pattern`.
  std::string text(const ptree& node, const std::string& path, const std::regex& pattern,
                   const std::string& what) const {
    const auto child = node.get_child_optional(key(path));
    if (!child) fail("\"" + path + "\" is missing");
    if (!child->empty() || !std::regex_match(child->data(), pattern)) {
      fail("\"" + path + "\" is not " + what);
    }
    return child->data();
  }

  // The elements of the JSON array at `path` (children with empty keys).
  std::vector<const ptree*> array(const ptree& node, const std::string& path) const {
    const auto child = node.get_child_optional(key(path));
    if (!child) fail("\"" + path + "\" is missing");
    std::vector<const ptree*> elements;
    for (const auto& [name, element] : *child) {
      if (!name.empty()) fail("\"" + path + "\" is not an array");
      elements.push_back(&element);
    }
    return elements;
  }

  const ptree& root() const { return tree_; }

 private:
  const ptree& tree_;
  const std::string& bundlePath_;
};

const std::regex kIdentifier("[A-Za-z_][A-Za-z0-9_]*");
const std::regex kQualifiedName("[A-Za-z_][A-Za-z0-9_]*(::[A-Za-z_][A-Za-z0-9_]*)*");
const std::regex kScheme("[A-Za-z][A-Za-z0-9.-]*");
const std::regex kAnything(".*");

ptree parseJson(std::string_view text, const std::string& bundlePath) {
  std::istringstream input{std::string(text)};
  ptree tree;
  try {
    boost::property_tree::read_json(input, tree);
  } catch (const boost::property_tree::json_parser_error& error) {
    throw BundleLoadError(bundlePath, "manifest.json is not valid JSON: line " +
                                          std::to_string(error.line()) + ": " + error.message());
  }
  return tree;
}

void checkComponent(const ManifestReader& reader, const ptree& component,
                    const BundleManifest& manifest) {
  bool offersFactory = false;
  for (const ptree* element : reader.array(component, "service/interfaces")) {
    offersFactory = offersFactory || element->data() == kContainerProviderFactoryInterface;
  }
  if (!offersFactory) {
    reader.fail("the component does not offer " + std::string(kContainerProviderFactoryInterface));
  }
  if (reader.text(component, "properties/scheme", kAnything, "text") != manifest.scheme) {
    reader.fail("the component's \"properties.scheme\" differs from \"scheme\"");
  }
}

}  // namespace

BundleManifest parseBundleManifest(std::string_view text, const std::string& bundlePath) {
  const ptree tree = parseJson(text, bundlePath);
  const ManifestReader reader(tree, bundlePath);
  BundleManifest manifest;
  manifest.symbolicName = reader.text(tree, "bundle.symbolic_name", kIdentifier, "an identifier");
  const auto activator = tree.get_optional<std::string>(key("bundle.activator"));
  if (activator && *activator != "false") {
    reader.fail("\"bundle.activator\" is set, but this host runs no bundle activators");
  }
  manifest.scheme = reader.text(tree, "scheme", kScheme, "a URI scheme");
  const auto components = reader.array(tree, "scr/components");
  if (components.size() != 1) {
    reader.fail("\"scr.components\" must hold exactly one component, it holds " +
                std::to_string(components.size()));
  }
  manifest.implementationClass = reader.text(*components.front(), "implementation-class",
                                             kQualifiedName, "a qualified C++ class name");
  checkComponent(reader, *components.front(), manifest);
  return manifest;
}

}  // namespace foundation::host
