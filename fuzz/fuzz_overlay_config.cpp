// Configuration trees through the overlay's configure, over an in-memory inner store. The
// input is read as JSON into the property tree the host would hand over (input that is not
// JSON is dropped). The overlay is configured, writes a file and reads it back, is configured
// again with the same tree, is flushed and shuts down. Checked: configure and the work throw
// nothing but the framework's Exception, nothing hangs (libFuzzer's -timeout), the file reads
// back as written and, once flushed, the inner store holds it. (Shutdown alone discards queued
// work on purpose: a host flushes first.)
//
// Confinement: "overlay.cacheRoot" is replaced by a path in a scratch directory named by the
// letters, digits, "_" and "-" of the given value (the scratch directory itself for none; a
// name starting with "f" is made a plain file first, an unusable root), and the scratch
// directory is also the process's temporary directory, where default cache roots go. So no
// content cache lands outside it. The scratch directory is removed at exit.
#include "FuzzSupport.h"

#include "core/provider/OverlayProvider.h"
#include "core/provider/OverlayProviderFactory.h"

#include <foundation/storage/provider/mem/MemProvider.h>

#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace {

namespace fs = boost::filesystem;
namespace fsp = foundation::storage::provider;
using boost::property_tree::ptree;
using fuzzsupport::require;
using storage::overlayprovider::OverlayProvider;

const fs::path& scratch() { return fuzzsupport::scratch("fuzz-overlay-config", true); }

void confineCacheRoot(ptree& config) {
  const auto root = config.get_optional<std::string>("overlay.cacheRoot");
  if (!root) return;
  std::string name;
  for (const char c : *root) {
    const bool kept = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '_' || c == '-';
    if (kept && name.size() < 16) name += c;
  }
  const fs::path confined = scratch() / name;
  if (!name.empty() && name.front() == 'f' && !fs::exists(confined)) {
    std::ofstream(confined.string()) << "not a folder";
  }
  config.put("overlay.cacheRoot", confined.string());
}

std::string readAll(fsp::ByteStream& stream) {
  std::string content;
  char buffer[512];
  for (long n; (n = stream.read(buffer, sizeof buffer)) > 0;) content.append(buffer, n);
  return content;
}

// What a configuration must never stop: a file written through the overlay reads back.
void writeAndReadBack(OverlayProvider& overlay, const fsp::StorageIRI& file,
                      const std::string& content) {
  auto out = overlay.openStream(file, fsp::ByteStreamOpenOptions::overwrite());
  out->write(content.data(), static_cast<long>(content.size()));
  out->close();
  auto in = overlay.openStream(file, fsp::ByteStreamOpenOptions::readOnly());
  require(readAll(*in) == content, "a file reads back as written");
  in->close();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The overlay logs every refused value; at tens of runs a second that only slows the
  // fuzzer down. A mask given by whoever runs it wins.
  ::setenv("FOUNDATION_LOG_MASK", "0", 0);
  scratch();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 4096) return 0;
  ptree config;
  try {
    std::istringstream text{std::string(reinterpret_cast<const char*>(data), size)};
    boost::property_tree::read_json(text, config);
  } catch (const boost::property_tree::json_parser_error&) {
    return 0;
  }
  confineCacheRoot(config);

  auto mem = std::make_shared<fsp::mem::MemProvider>(fsp::mem::MemProvider::Options{});
  const fsp::StorageItem innerRoot(mem, fsp::mem::MemProvider::rootLocation());
  auto overlay = std::make_shared<OverlayProvider>(innerRoot);
  const auto root = storage::overlayprovider::OverlayProviderFactory().getRootLocation(innerRoot);
  const std::string content = "written through the overlay\n";
  bool written = false;
  try {
    overlay->configure(config);
    writeAndReadBack(*overlay, fsp::StorageIRI(root, u"a.txt"), content);
    overlay->configure(config);
    overlay->flushFilesystem();
    written = true;
  } catch (const fsp::Exception&) {
    // Refused cleanly: nothing more to check.
  }
  if (written) {
    auto in = mem->openStream(fsp::StorageIRI(fsp::mem::MemProvider::rootLocation(), u"a.txt"),
                              fsp::ByteStreamOpenOptions::readOnly());
    require(readAll(*in) == content, "once flushed, the inner store holds what was written");
  }
  const auto cacheRoot = overlay->contentCache().cacheRoot();
  overlay->shutdown();
  overlay.reset();
  boost::system::error_code ignored;
  if (cacheRoot.filename().string().rfind("overlay_cache-", 0) == 0) {
    fs::remove_all(cacheRoot, ignored);
  }
  return 0;
}
