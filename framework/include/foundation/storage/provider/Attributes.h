// FileAttributes, FolderAttributes and ExtendedAttributes: what a provider reports about a
// location. Plain values; safe to copy between threads.
#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace foundation::storage::provider {

namespace posix_time = boost::posix_time;

class FileAttributes {
 public:
  // size: bytes, empty when the provider does not know it; lastModified: UTC.
  FileAttributes(std::optional<std::uint64_t> size, posix_time::ptime lastModified, bool writable)
      : size_(size), lastModified_(lastModified), writable_(writable) {}

  const std::optional<std::uint64_t>& getSize() const { return size_; }
  const posix_time::ptime& getLastModified() const { return lastModified_; }
  bool isWritable() const { return writable_; }

 private:
  std::optional<std::uint64_t> size_;
  posix_time::ptime lastModified_;
  bool writable_;
};

class FolderAttributes {
 public:
  FolderAttributes(posix_time::ptime lastModified, bool writable)
      : lastModified_(lastModified), writable_(writable) {}

  const posix_time::ptime& getLastModified() const { return lastModified_; }
  bool isWritable() const { return writable_; }

 private:
  posix_time::ptime lastModified_;
  bool writable_;
};

// A set of named attributes with text values (names and values are narrow text; values may
// hold any bytes). getAttribute on a missing name returns empty text; ask hasAttribute first
// where the difference matters.
class ExtendedAttributes {
 public:
  using Map = std::map<std::string, std::string>;

  ExtendedAttributes() = default;
  explicit ExtendedAttributes(Map attributes) : attributes_(std::move(attributes)) {}

  bool hasAttribute(const std::string& name) const { return attributes_.count(name) != 0; }
  std::string getAttribute(const std::string& name) const {
    auto it = attributes_.find(name);
    return it == attributes_.end() ? std::string() : it->second;
  }
  ExtendedAttributes& setAttribute(const std::string& name, std::string value) {
    attributes_[name] = std::move(value);
    return *this;
  }
  bool empty() const { return attributes_.empty(); }
  const Map& all() const { return attributes_; }

  friend bool operator==(const ExtendedAttributes& a, const ExtendedAttributes& b) {
    return a.attributes_ == b.attributes_;
  }

 private:
  Map attributes_;
};

}  // namespace foundation::storage::provider
