// The crash test's child: the overlay, with its journal, over a local folder that answers each
// call a millisecond late, as the mount configures it.
//   overlay_crash_child work STORE CACHE SEED COUNT   makes COUNT changes of the workload
//       drawn from SEED, writing each change's index (8 bytes) to stdout once it returned;
//       the test kills it at some point.
//   overlay_crash_child recover STORE CACHE           starts over the same cache root, flushes,
//       and prints how many changes the journal held.
#include "CrashWorkload.h"

#include "core/provider/OverlayProvider.h"

#include <foundation/storage/provider/file/FileProvider.h>
#include <foundation/storage/provider/instrumented/InstrumentedProvider.h>
#include <foundation/text/Unicode.h>

#include <unistd.h>
#include <boost/property_tree/json_parser.hpp>
#include <cstdlib>
#include <iostream>
#include <sstream>

namespace fsp = foundation::storage::provider;
using storage::overlayprovider::OverlayProvider;
using storage::overlayprovider::crash::Change;
using storage::overlayprovider::crash::Model;

namespace {

std::shared_ptr<OverlayProvider> overlayOver(const std::string& store, const std::string& cache) {
  auto folder = std::make_shared<fsp::file::FileProvider>(store);
  auto slow = std::make_shared<fsp::instrumented::InstrumentedProvider>(folder);
  slow->setCallLatency(std::chrono::milliseconds(1));
  slow->setStreamLatency(std::chrono::milliseconds(1));
  auto overlay = std::make_shared<OverlayProvider>(
      fsp::StorageItem(slow, fsp::file::FileProvider::rootLocation()));
  boost::property_tree::ptree config;
  config.put("overlay.replayWorkers", 8);
  config.put("overlay.absorbChanges", "true");
  config.put("overlay.suppressEchoes", "true");
  config.put("overlay.cacheRoot", cache);
  config.put("overlay.persistContentCache", "true");
  config.put("overlay.journal", "true");
  overlay->configure(config);
  return overlay;
}

fsp::StorageIRI at(const std::string& path) {
  return fsp::StorageIRI(u"overlay", foundation::text::toUtf16(path));
}

void perform(OverlayProvider& overlay, const Change& change, const Model& model) {
  switch (change.kind) {
    case Change::CreateFile:
      overlay.createFile(at(change.path));
      break;
    case Change::Write: {
      auto stream = overlay.openStream(at(change.path), fsp::ByteStreamOpenOptions::readWrite());
      stream->seek(static_cast<long>(change.offset), std::ios_base::beg);
      const std::string bytes(static_cast<std::size_t>(change.length), change.fill);
      if (stream->write(bytes.data(), static_cast<long>(bytes.size())) != change.length) {
        throw std::runtime_error("short write");
      }
      stream->close();
      break;
    }
    case Change::Truncate:
      overlay.truncateToSize(at(change.path), static_cast<std::uint64_t>(change.length));
      break;
    case Change::MoveFile:
      // To a free name as `mv -n` asks (a move that must not replace), so that recovery meets
      // both kinds.
      overlay.moveFile(at(change.path), at(change.to),
                       model.files.count(change.to) ? fsp::ReplacementPolicy::Overwrite
                                                    : fsp::ReplacementPolicy::Fail);
      break;
    case Change::RemoveFile:
      overlay.removeFile(at(change.path));
      break;
    case Change::CreateFolder:
      overlay.createFolder(at(change.path));
      break;
    case Change::MoveFolder:
      overlay.moveFolder(at(change.path), at(change.to), fsp::ReplacementPolicy::Fail);
      break;
    case Change::RemoveFolderTree:
      overlay.removeFolderRecursively(at(change.path));
      break;
    case Change::Flush:
      overlay.flushFilesystem();
      break;
  }
}

int work(const std::string& store, const std::string& cache, std::uint64_t seed, long count) {
  const auto overlay = overlayOver(store, cache);
  Model model;
  std::mt19937_64 random(seed);
  for (std::int64_t index = 0; index < count; ++index) {
    const auto change = model.next(random);
    perform(*overlay, change, model);
    model.apply(change);
    if (::write(STDOUT_FILENO, &index, sizeof index) != sizeof index) return 3;
  }
  ::pause();  // killed here at the latest
  return 0;
}

int recover(const std::string& store, const std::string& cache) {
  const auto overlay = overlayOver(store, cache);
  overlay->flushFilesystem();
  boost::property_tree::ptree statistics;
  std::istringstream text(overlay->queueStatistics());
  boost::property_tree::read_json(text, statistics);
  std::cout << statistics.get<long>("journal.recovered", 0) << std::endl;
  overlay->shutdown();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "work" && argc == 6) {
      return work(argv[2], argv[3], std::stoull(argv[4]), std::stol(argv[5]));
    }
    if (mode == "recover" && argc == 4) return recover(argv[2], argv[3]);
    std::cerr << "usage: overlay_crash_child work STORE CACHE SEED COUNT | recover STORE CACHE\n";
    return 2;
  } catch (const std::exception& e) {
    std::cerr << "overlay_crash_child: " << e.what() << std::endl;
    return 1;
  }
}
