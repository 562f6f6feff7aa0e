// LocalRoot: maps the provider's locations onto local paths below one directory, and keeps
// every location inside that directory.
//
// Confinement rules:
//   - Only "file" locations are accepted (InvalidLocation otherwise). A location's path is
//     always absolute and already resolved by StorageIRI: ".." is removed lexically and never
//     climbs above "/", so "/../x" names <root>/x. Components can therefore never be ".",
//     ".." or absolute; a component holding a NUL character is refused with InvalidName.
//   - Symbolic links: every existing component of the local path (the last one included) is
//     checked with lstat; a symbolic link is resolved with realpath and must lead to the root
//     or below it, otherwise the request is refused with InvalidLocation. A dangling link is
//     refused as well, because where a creation through it would land cannot be checked.
//     Links that stay inside the root are followed: an entry reached through one behaves as
//     the entry it points to (except removal, which removes the link itself).
//   - Accepted race: the check and the later system call are separate steps. Someone who can
//     write inside the root and swaps a component for an escaping link between the two can
//     still make one operation reach outside. The provider guards against links lying in the
//     tree, not against a hostile process racing it.
// The root itself is kept as its canonical path (realpath at construction), so a root given
// through a link works.
//
// Immutable after construction; safe to use from any thread.
#pragma once

#include <foundation/storage/provider/StorageIRI.h>

#include <filesystem>
#include <string>

namespace foundation::storage::provider::file {

class LocalRoot {
 public:
  // `root` must be an existing directory; Exception(NotFound) naming it otherwise.
  explicit LocalRoot(const std::filesystem::path& root);

  // The canonical local path of the root directory.
  const std::string& path() const { return root_; }
  // The local path of `location` after the scheme, name and link checks above.
  std::string resolve(const StorageIRI& location) const;
  // The local path of `location` without the link checks (for locations derived from an
  // already checked one, such as the entries of a listing).
  std::string localPathOf(const StorageIRI& location) const;
  // True when the canonical path `real` is the root or lies below it.
  bool contains(const std::string& real) const;
  // True when the local entry `path` (checked with lstat) is a symbolic link that leads
  // outside the root or nowhere; such entries are left out of listings and walks.
  bool isEscapingLink(const std::string& path) const;

 private:
  void checkLinks(const StorageIRI& location) const;

  std::string root_;
};

}  // namespace foundation::storage::provider::file
