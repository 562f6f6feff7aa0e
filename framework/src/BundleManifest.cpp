#include "BundleManifest.h"

#include <foundation/host/BundleAbi.h>
#include <foundation/host/BundleLoadError.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <functional>
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

  // The text of the leaf at `path`, which must be accepted by `isValid`.
  std::string text(const ptree& node, const std::string& path,
                   const std::function<bool(std::string_view)>& isValid,
                   const std::string& what) const {
    const auto child = node.get_child_optional(key(path));
    if (!child) fail("\"" + path + "\" is missing");
    if (!child->empty() || !isValid(child->data())) {
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

bool isAsciiLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

// [A-Za-z_][A-Za-z0-9_]*: what may follow "NewInstance_" or the context setter's prefix.
bool isIdentifier(std::string_view text) {
  if (text.empty() || isAsciiDigit(text.front())) return false;
  for (const char c : text) {
    if (!isAsciiLetter(c) && !isAsciiDigit(c) && c != '_') return false;
  }
  return true;
}

// Identifiers joined by "::".
bool isQualifiedName(std::string_view text) {
  for (std::size_t start = 0;;) {
    const std::size_t end = text.find("::", start);
    if (!isIdentifier(text.substr(start, end - start))) return false;
    if (end == std::string_view::npos) return true;
    start = end + 2;
  }
}

// [A-Za-z][A-Za-z0-9.-]*; no "+", which composes schemes in a location's text form.
bool isScheme(std::string_view text) {
  if (text.empty() || !isAsciiLetter(text.front())) return false;
  for (const char c : text) {
    if (!isAsciiLetter(c) && !isAsciiDigit(c) && c != '.' && c != '-') return false;
  }
  return true;
}

bool isAnyText(std::string_view) { return true; }

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
  if (reader.text(component, "properties/scheme", isAnyText, "text") != manifest.scheme) {
    reader.fail("the component's \"properties.scheme\" differs from \"scheme\"");
  }
}

}  // namespace

BundleManifest parseBundleManifest(std::string_view text, const std::string& bundlePath) {
  const ptree tree = parseJson(text, bundlePath);
  const ManifestReader reader(tree, bundlePath);
  BundleManifest manifest;
  manifest.symbolicName = reader.text(tree, "bundle.symbolic_name", isIdentifier, "an identifier");
  const auto activator = tree.get_optional<std::string>(key("bundle.activator"));
  if (activator && *activator != "false") {
    reader.fail("\"bundle.activator\" is set, but this host runs no bundle activators");
  }
  manifest.scheme = reader.text(tree, "scheme", isScheme, "a URI scheme");
  const auto components = reader.array(tree, "scr/components");
  if (components.size() != 1) {
    reader.fail("\"scr.components\" must hold exactly one component, it holds " +
                std::to_string(components.size()));
  }
  manifest.implementationClass = reader.text(*components.front(), "implementation-class",
                                             isQualifiedName, "a qualified C++ class name");
  checkComponent(reader, *components.front(), manifest);
  return manifest;
}

}  // namespace foundation::host
