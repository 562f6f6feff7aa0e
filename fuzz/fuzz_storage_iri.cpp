// StorageIRI from its text form, and built from parts. The first line of the input is a text
// form (UTF-8); every further line is a name added below the location reached so far. Checked:
// a parsed IRI prints as text that parses to an equal IRI; its path is kept resolved; parent,
// name, child construction, ancestry and the order agree with one another. Nothing may throw
// but the framework's Exception.
#include "FuzzSupport.h"

#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/StorageIRI.h>
#include <foundation/text/Unicode.h>

#include <string>
#include <vector>

namespace {

using foundation::storage::provider::StorageIRI;
using fuzzsupport::require;
namespace text = foundation::text;

std::vector<std::string_view> lines(std::string_view input) {
  std::vector<std::string_view> out;
  for (std::size_t start = 0;;) {
    const auto end = input.find('\n', start);
    out.push_back(input.substr(start, end - start));
    if (end == std::string_view::npos) return out;
    start = end + 1;
  }
}

// A resolved path: "/" alone, or "/"-led non-empty components, none "." or "..".
void checkResolved(const StorageIRI& iri) {
  const auto& path = iri.getPath();
  const std::string shown = iri.toString();
  require(!path.empty() && path.front() == u'/', "path is absolute: " + shown);
  std::u16string joined;
  std::size_t count = 0;
  for (const auto& part : iri.getPathView()) {
    require(!part.empty() && part != u"." && part != u".." && part.find(u'/') == part.npos,
            "components are resolved: " + shown);
    joined += u'/';
    joined += part;
    ++count;
  }
  require(count == iri.getPathView().size(), "path view size: " + shown);
  require((joined.empty() ? u"/" : joined) == path, "components spell the path: " + shown);
  require(iri.hasParent() == (count > 0), "only the root lacks a parent: " + shown);
  require(iri.getName() == (count > 0 ? path.substr(path.rfind(u'/') + 1) : u""),
          "name is the last component: " + shown);
}

// Equality, order and the text form agree.
void checkSame(const StorageIRI& a, const StorageIRI& b, const std::string& what) {
  require(a == b && !(a != b) && !(a < b) && !(b < a),
          what + ": " + a.toString() + " vs " + b.toString());
}

void checkParent(const StorageIRI& iri) {
  const std::string shown = iri.toString();
  const StorageIRI parent = iri.getParent();
  checkResolved(parent);
  if (!iri.hasParent()) {
    checkSame(parent, iri, "the root is its own parent");
    return;
  }
  require(parent.isAncestorOf(iri) && !iri.isAncestorOf(parent), "parent is an ancestor: " + shown);
  require(parent < iri && !(iri < parent), "an ancestor sorts first: " + shown);
  require(parent.getPathView().size() + 1 == iri.getPathView().size(), "parent depth: " + shown);
  checkSame(StorageIRI(parent, iri.getName()), iri, "parent plus name gives the location back");
  require(!iri.isAncestorOf(iri), "ancestry is strict: " + shown);
}

// The text form parses back to an equal location with the same text.
void checkRoundTrip(const StorageIRI& iri) {
  const std::string shown = iri.toString();
  const StorageIRI again(text::toUtf16(shown));
  checkSame(again, iri, "text form parses back");
  require(again.toString() == shown, "text form is stable: " + shown);
  require(again.hasInnerIRI() == iri.hasInnerIRI(), "composition survives the text form: " + shown);
}

// A name that adds exactly one component.
bool isPlainName(const std::u16string& name) {
  return !name.empty() && name != u"." && name != u".." && name.find(u'/') == name.npos;
}

void checkChild(const StorageIRI& parent, const std::u16string& name, const StorageIRI& child) {
  const std::string shown = child.toString();
  checkResolved(child);
  checkSame(child, parent.withPath(parent.getPath() + u"/" + name),
            "a child is the parent's path extended");
  if (child.hasInnerIRI()) {
    // The parent came from text, so its inner location is rooted where its own path is.
    require(child.getInnerIRI().getPath() == child.getPath(),
            "a composed child extends its inner location alike: " + shown);
  }
  if (isPlainName(name)) {
    require(child.getName() == name, "a child's name is the name given: " + shown);
    checkSame(child.getParent(), parent, "a child's parent is the parent");
    require(parent.isAncestorOf(child), "the parent is an ancestor of its child: " + shown);
  }
  if (parent.isAncestorOf(child)) require(parent < child, "an ancestor sorts first: " + shown);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 4096) return 0;  // long inputs only repeat what short ones reach
  const auto parts = lines(std::string_view(reinterpret_cast<const char*>(data), size));
  StorageIRI iri;
  try {
    iri = StorageIRI(text::toUtf16(parts.front()));
  } catch (const foundation::storage::provider::Exception&) {
    return 0;  // refused cleanly
  }
  checkResolved(iri);
  checkRoundTrip(iri);
  checkSame(iri.withPath(iri.getPath()), iri, "withPath of its own path");
  checkParent(iri);
  if (iri.hasInnerIRI()) {
    require(iri.getInnerIRI().getPath() == iri.getPath(),
            "a parsed composition takes its path from its inner location: " + iri.toString());
  }
  for (std::size_t i = 1; i < parts.size(); ++i) {
    const std::u16string name = text::toUtf16(parts[i]);
    const StorageIRI child(iri, name);
    checkChild(iri, name, child);
    checkParent(child);
    checkRoundTrip(child);
    iri = child;
  }
  return 0;
}
