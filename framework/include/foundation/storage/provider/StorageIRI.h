// StorageIRI: the name of a location in a storage provider: a scheme, a UTF-16 path and,
// for a composed location, the location it is nested in (its inner IRI).
//
// Paths are absolute and always kept resolved: "/" separates components, empty and "."
// components are dropped and ".." removes the component before it (never climbing above
// "/"). So "/a//./b/../c/" is kept as "/a/c". The root is "/" and has no parent.
//
// Text form (toString, and the constructor from one string):
//   simple     "<scheme>:<path>"             e.g. "mem:/docs/a.txt"
//   composed   "<scheme>+<inner text form>"  e.g. "overlay+file:/docs/a.txt"
// A composed IRI's inner location is the text after the last "+" of its scheme part. When
// parsed, a composed IRI takes its own path from that inner location; when built from parts,
// a child of a composed IRI extends both its own path and its inner location.
//
// Identity: two IRIs are equal when their schemes, their own path components and the schemes
// of their inner IRIs (all the way down) are equal; operator< is the lexicographic total
// order over (scheme, inner schemes, path components). The path of an inner IRI only says
// where a composition is rooted and does not take part in identity.
//
// Values are immutable after construction and safe to share between threads.
#pragma once

#include <foundation/network/IRI.h>

#include <boost/iterator/iterator_facade.hpp>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace foundation::storage::provider {

class StorageIRI;

// Iteration over the components of a path, from the root down ("/a/b" gives "a", "b").
class PathViewIterator : public boost::iterator_facade<PathViewIterator, const std::u16string,
                                                       boost::forward_traversal_tag> {
 public:
  PathViewIterator() = default;
  PathViewIterator(std::shared_ptr<const std::vector<std::u16string>> parts, std::size_t index)
      : parts_(std::move(parts)), index_(index) {}

  const std::u16string& dereference() const { return (*parts_)[index_]; }
  bool equal(const PathViewIterator& other) const { return index_ == other.index_; }
  void increment() { ++index_; }

 private:
  friend class boost::iterator_core_access;
  std::shared_ptr<const std::vector<std::u16string>> parts_;
  std::size_t index_ = 0;
};

class PathView {
 public:
  explicit PathView(std::shared_ptr<const std::vector<std::u16string>> parts)
      : parts_(std::move(parts)) {}
  PathViewIterator begin() const { return {parts_, 0}; }
  PathViewIterator end() const { return {parts_, parts_->size()}; }
  std::size_t size() const { return parts_->size(); }

 private:
  std::shared_ptr<const std::vector<std::u16string>> parts_;
};

class StorageIRI {
 public:
  // The empty location: no scheme, path "/". Used where an event has no second location.
  StorageIRI();
  // From a generic IRI: its scheme and path (UTF-8) become this IRI's (no inner IRI).
  explicit StorageIRI(const network::IRI& iri);
  // The child `name` of the folder `parent`. A name holding "/" is read as a relative path
  // below the parent ("/" itself therefore names the parent again).
  StorageIRI(const StorageIRI& parent, const std::u16string& name);
  // A composed location: `scheme` over the location `inner`, with its own `path`.
  StorageIRI(const std::u16string& scheme, const StorageIRI& inner, std::u16string path);
  // A simple location from a scheme and a path.
  StorageIRI(std::u16string scheme, std::u16string path);
  // From the text form (see above). Text without ":" is read as a path with an empty scheme.
  explicit StorageIRI(const std::u16string& text);

  const std::u16string& getScheme() const { return scheme_; }
  // The resolved absolute path, "/" for the root.
  const std::u16string& getPath() const { return path_; }
  // The last path component; empty for the root.
  std::u16string getName() const;
  // The parent folder; the root is its own parent.
  StorageIRI getParent() const;
  bool hasParent() const { return !parts_->empty(); }
  bool hasInnerIRI() const { return inner_ != nullptr; }
  // The inner location; throws std::logic_error when there is none.
  const StorageIRI& getInnerIRI() const;
  // This location with its path resolved (paths are kept resolved, so an equal copy).
  StorageIRI getResolvedIRI() const { return *this; }
  PathView getPathView() const { return PathView(parts_); }
  // The same location with another path (same scheme and inner IRI).
  StorageIRI withPath(std::u16string path) const;
  // The text form, UTF-8.
  std::string toString() const;
  // True when `other` lies strictly below this location (same scheme and inner schemes, and
  // this path's components are a strict prefix of other's).
  bool isAncestorOf(const StorageIRI& other) const;

  friend bool operator<(const StorageIRI& a, const StorageIRI& b);
  friend bool operator==(const StorageIRI& a, const StorageIRI& b);
  friend bool operator!=(const StorageIRI& a, const StorageIRI& b) { return !(a == b); }
  friend std::ostream& operator<<(std::ostream& out, const StorageIRI& iri);

 private:
  void setPath(const std::u16string& path);
  int compare(const StorageIRI& other) const;

  std::u16string scheme_;
  std::u16string path_;
  std::shared_ptr<const std::vector<std::u16string>> parts_;
  std::shared_ptr<const StorageIRI> inner_;
};

}  // namespace foundation::storage::provider
