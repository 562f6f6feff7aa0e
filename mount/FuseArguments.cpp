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

// The kernel's writeback cache is the command's to turn on (in init), so libfuse's parser
// does not know its names: they are taken out of the list here.
std::string FuseArguments::takeWritebackChoice(const std::string& list) {
  std::string rest;
  std::size_t start = 0;
  while (start <= list.size()) {
    const std::size_t end = std::min(list.find(',', start), list.size());
    const std::string option = list.substr(start, end - start);
    if (option == "no_writeback_cache" || option == "writeback_cache") {
      writebackCache_ = option == "writeback_cache";
    } else if (!option.empty()) {
      rest += (rest.empty() ? "" : ",") + option;
    }
    start = end + 1;
  }
  return rest;
}

FuseArguments::FuseArguments(const MountOptions& options) {
  // default_permissions: the kernel checks access against the modes shown (the store's
  // writable flag), as on a local file system, root included. The timeouts are modest because
  // changes made outside the mount reach the overlay after its quiet period; auto_cache drops
  // cached pages of a file whose size or time changed.
  std::vector<std::string> strings = {
      "cachemount", "-o",
      "default_permissions,auto_cache,entry_timeout=1,attr_timeout=1,negative_timeout=1,"
      "subtype=cachemount,fsname=cachemount:" +
          escapeOptionValue(storeName(options))};
  for (const auto& list : options.fuseOptions) {
    const std::string rest = takeWritebackChoice(list);
    if (!rest.empty()) strings.insert(strings.end(), {"-o", rest});
  }
  if (options.debug) strings.push_back("-d");
  for (const auto& text : strings) {
    if (fuse_opt_add_arg(&args_, text.c_str()) != 0) throw std::bad_alloc();
  }
}

FuseArguments::~FuseArguments() { fuse_opt_free_args(&args_); }

}  // namespace storage::mount
