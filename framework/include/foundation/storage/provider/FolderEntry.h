// FolderEntry: one row of a folder listing: a name with the attributes of a file or of a
// folder, and the entry's extended attributes. In a recursive listing the name is the path
// relative to the listed folder ("sub/file.txt"). Plain value.
#pragma once

#include <foundation/storage/provider/Attributes.h>

#include <stdexcept>
#include <string>
#include <variant>

namespace foundation::storage::provider {

class FolderEntry {
 public:
  FolderEntry(std::u16string name, FileAttributes attributes, ExtendedAttributes extended = {})
      : name_(std::move(name)),
        attributes_(std::move(attributes)),
        extended_(std::move(extended)) {}
  FolderEntry(std::u16string name, FolderAttributes attributes, ExtendedAttributes extended = {})
      : name_(std::move(name)),
        attributes_(std::move(attributes)),
        extended_(std::move(extended)) {}

  const std::u16string& getName() const { return name_; }
  bool isFile() const { return attributes_.index() == 0; }
  // Throw std::logic_error when the row is of the other kind.
  const FileAttributes& getFileAttributes() const;
  const FolderAttributes& getFolderAttributes() const;
  const ExtendedAttributes& getExtendedAttributes() const { return extended_; }

 private:
  std::u16string name_;
  std::variant<FileAttributes, FolderAttributes> attributes_;
  ExtendedAttributes extended_;
};

inline const FileAttributes& FolderEntry::getFileAttributes() const {
  if (!isFile()) throw std::logic_error("FolderEntry: a folder row has no file attributes");
  return std::get<0>(attributes_);
}

inline const FolderAttributes& FolderEntry::getFolderAttributes() const {
  if (isFile()) throw std::logic_error("FolderEntry: a file row has no folder attributes");
  return std::get<1>(attributes_);
}

}  // namespace foundation::storage::provider
