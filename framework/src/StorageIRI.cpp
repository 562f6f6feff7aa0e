#include <foundation/storage/provider/StorageIRI.h>
#include <foundation/text/Unicode.h>

#include <algorithm>
#include <stdexcept>

namespace foundation::storage::provider {

namespace {

// Splits a path into its resolved components (see the header for the rules).
std::vector<std::u16string> resolveComponents(const std::u16string& path) {
  std::vector<std::u16string> parts;
  std::size_t start = 0;
  while (start <= path.size()) {
    const auto end = std::min(path.find(u'/', start), path.size());
    std::u16string part = path.substr(start, end - start);
    if (part == u"..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != u".") {
      parts.push_back(std::move(part));
    }
    start = end + 1;
  }
  return parts;
}

// Compares the scheme chains of two inner IRIs (null sorts first).
int compareSchemeChains(const StorageIRI* a, const StorageIRI* b) {
  while (a != nullptr && b != nullptr) {
    if (const int c = a->getScheme().compare(b->getScheme()); c != 0) return c;
    a = a->hasInnerIRI() ? &a->getInnerIRI() : nullptr;
    b = b->hasInnerIRI() ? &b->getInnerIRI() : nullptr;
  }
  return (a == nullptr ? 0 : 1) - (b == nullptr ? 0 : 1);
}

}  // namespace

StorageIRI::StorageIRI() { setPath(u"/"); }

StorageIRI::StorageIRI(const network::IRI& iri) : scheme_(text::toUtf16(iri.getScheme())) {
  setPath(text::toUtf16(iri.getPath()));
}

StorageIRI::StorageIRI(const StorageIRI& parent, const std::u16string& name)
    : scheme_(parent.scheme_) {
  if (parent.inner_) {
    inner_ = std::make_shared<const StorageIRI>(*parent.inner_, name);
  }
  setPath(parent.path_ + u"/" + name);
}

StorageIRI::StorageIRI(const std::u16string& scheme, const StorageIRI& inner, std::u16string path)
    : scheme_(scheme), inner_(std::make_shared<const StorageIRI>(inner)) {
  setPath(path);
}

StorageIRI::StorageIRI(std::u16string scheme, std::u16string path) : scheme_(std::move(scheme)) {
  setPath(path);
}

StorageIRI::StorageIRI(const std::u16string& text) {
  const auto colon = text.find(u':');
  const auto schemePart = text.substr(0, colon);
  if (colon == std::u16string::npos || schemePart.find(u'/') != std::u16string::npos) {
    setPath(text);
    return;
  }
  const auto lastPlus = schemePart.rfind(u'+');
  if (lastPlus == std::u16string::npos) {
    scheme_ = schemePart;
    setPath(text.substr(colon + 1));
    return;
  }
  scheme_ = schemePart.substr(0, lastPlus);
  inner_ = std::make_shared<const StorageIRI>(text.substr(lastPlus + 1));
  setPath(inner_->path_);
}

void StorageIRI::setPath(const std::u16string& path) {
  auto parts = resolveComponents(path);
  std::u16string resolved;
  for (const auto& part : parts) {
    resolved += u'/';
    resolved += part;
  }
  path_ = resolved.empty() ? std::u16string(1, u'/') : std::move(resolved);
  parts_ = std::make_shared<const std::vector<std::u16string>>(std::move(parts));
}

std::u16string StorageIRI::getName() const {
  return parts_->empty() ? std::u16string() : parts_->back();
}

StorageIRI StorageIRI::getParent() const {
  StorageIRI parent(*this);
  if (!hasParent()) return parent;
  if (inner_ && inner_->hasParent()) {
    parent.inner_ = std::make_shared<const StorageIRI>(inner_->getParent());
  }
  // The path is kept normalised ("/a/b", or "/" alone): the parent drops the last part
  // without parsing the path again, which every lookup of the caches does several times.
  const auto cut = path_.rfind(u'/');
  parent.path_ = cut == 0 ? std::u16string(1, u'/') : path_.substr(0, cut);
  parent.parts_ =
      std::make_shared<const std::vector<std::u16string>>(parts_->begin(), parts_->end() - 1);
  return parent;
}

const StorageIRI& StorageIRI::getInnerIRI() const {
  if (!inner_) throw std::logic_error("StorageIRI " + toString() + " has no inner IRI");
  return *inner_;
}

StorageIRI StorageIRI::withPath(std::u16string path) const {
  StorageIRI copy(*this);
  copy.setPath(path);
  return copy;
}

std::string StorageIRI::toString() const {
  if (inner_) return text::toUtf8(scheme_) + "+" + inner_->toString();
  return text::toUtf8(scheme_) + ":" + text::toUtf8(path_);
}

int StorageIRI::compare(const StorageIRI& other) const {
  if (const int c = scheme_.compare(other.scheme_); c != 0) return c;
  if (const int c = compareSchemeChains(inner_.get(), other.inner_.get()); c != 0) return c;
  const auto& a = *parts_;
  const auto& b = *other.parts_;
  const auto [ia, ib] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
  if (ia == a.end() && ib == b.end()) return 0;
  if (ia == a.end()) return -1;
  if (ib == b.end()) return 1;
  return ia->compare(*ib);
}

bool StorageIRI::isAncestorOf(const StorageIRI& other) const {
  if (scheme_ != other.scheme_ || compareSchemeChains(inner_.get(), other.inner_.get()) != 0) {
    return false;
  }
  const auto& a = *parts_;
  const auto& b = *other.parts_;
  return a.size() < b.size() && std::equal(a.begin(), a.end(), b.begin());
}

bool operator<(const StorageIRI& a, const StorageIRI& b) { return a.compare(b) < 0; }
bool operator==(const StorageIRI& a, const StorageIRI& b) { return a.compare(b) == 0; }

std::ostream& operator<<(std::ostream& out, const StorageIRI& iri) { return out << iri.toString(); }

}  // namespace foundation::storage::provider
