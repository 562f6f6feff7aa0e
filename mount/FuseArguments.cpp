#include "FuseArguments.h"

#include <stdexcept>

namespace storage::mount {

namespace {

// fuse_opt splits option lists at commas; a backslash keeps one in a value.
std::string escapeOptionValue(const std::string& value) {
  std::string escaped;
  for (const char c : value) {
    if (c == ',' || c == '\\') escaped.push_back('\\');
    escaped.push_back(c);
  }
  return escaped;
}

std::string storeName(const MountOptions& options) {
  return options.storeKind == MountOptions::StoreKind::Mem ? std::string("mem:")
                                                           : options.storeDirectory;
}

}  // namespace

FuseArguments::FuseArguments(const MountOptions& options) {
  // The timeouts are modest because changes made outside the mount reach the overlay after its
  // quiet period; auto_cache drops cached pages of a file whose size or time changed.
  std::vector<std::string> strings = {
      "cachemount", "-o",
      "auto_cache,entry_timeout=1,attr_timeout=1,negative_timeout=1,"
      "subtype=cachemount,fsname=cachemount:" +
          escapeOptionValue(storeName(options))};
  for (const auto& option : options.fuseOptions) {
    strings.push_back("-o");
    strings.push_back(option);
    if (option.find("no_writeback_cache") != std::string::npos) writebackCache_ = false;
  }
  if (options.debug) strings.push_back("-d");
  for (const auto& text : strings) {
    if (fuse_opt_add_arg(&args_, text.c_str()) != 0) throw std::bad_alloc();
  }
}

FuseArguments::~FuseArguments() { fuse_opt_free_args(&args_); }

}  // namespace storage::mount
