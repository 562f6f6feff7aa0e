// The byte ranges a cached body holds (FilesystemCacheResource) against a model: one flag per
// byte saying whether it is valid, and the bytes last written. The input is a sequence of
// operations (write, query, whole-body and next-range questions, removal); after each one the
// recorded ranges must cover exactly the valid bytes, and every answer must agree with the
// model (see checkQuery for what a query may answer while ranges overlap).
//
// The body lives in one scratch directory made for the process and removed at its exit.
#include "FuzzSupport.h"

#include "core/cacheresources/FilesystemCacheResource.h"
#include "core/metadata/FileMetadata.h"

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/filesystem.hpp>
#include <optional>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;
namespace fsp = foundation::storage::provider;
using fuzzsupport::require;
using storage::overlayprovider::ByteRange;
using storage::overlayprovider::FileMetadata;
using storage::overlayprovider::FilesystemCacheResource;
using storage::overlayprovider::RangeStatus;

// Writes start below kSpan and are at most kMaxWrite long; the model covers both.
constexpr std::int64_t kSpan = 256;
constexpr std::int64_t kMaxWrite = 40;
constexpr std::int64_t kModelSize = kSpan + kMaxWrite + 1;

const fs::path& scratch() { return fuzzsupport::scratch("fuzz-cache-ranges", false); }

struct Model {
  std::vector<bool> valid = std::vector<bool>(kModelSize, false);
  std::string bytes = std::string(kModelSize, '\0');

  bool at(std::int64_t i) const { return i >= 0 && i < kModelSize && valid[i]; }
  // The first byte at or after `from` whose validity is `state` (kModelSize when none).
  std::int64_t next(std::int64_t from, bool state) const {
    for (std::int64_t i = from; i < kModelSize; ++i) {
      if (valid[i] == state) return i;
    }
    return kModelSize;
  }
};

std::string describe(std::int64_t position, std::int64_t length) {
  return " [" + std::to_string(position) + ", +" + std::to_string(length) + ")";
}

void checkRanges(const FilesystemCacheResource& resource, const Model& model) {
  std::vector<bool> covered(kModelSize, false);
  for (const auto& [from, to] : resource.ranges()) {
    require(from >= 0 && from < to && to <= kModelSize,
            "a recorded range is non-empty and written" + describe(from, to - from));
    for (auto i = from; i < to; ++i) covered[i] = true;
  }
  for (std::int64_t i = 0; i < kModelSize; ++i) {
    require(covered[i] == model.valid[i],
            "ranges cover exactly the written bytes, byte " + std::to_string(i));
  }
}

// Whether no recorded range overlaps or touches the next: then every range is a whole run of
// written bytes, and a query's answer is exact.
bool disjoint(const FilesystemCacheResource& resource) {
  std::int64_t previousEnd = -1;
  for (const auto& [from, to] : resource.ranges()) {
    if (from <= previousEnd) return false;
    previousEnd = to;
  }
  return true;
}

void checkReadBack(FilesystemCacheResource& resource, const Model& model, std::int64_t from,
                   std::int64_t to, const std::string& where) {
  std::string read(static_cast<std::size_t>(to - from), '\0');
  require(resource.read(from, read.data(), to - from) == to - from &&
              read == model.bytes.substr(from, to - from),
          "cached bytes read back as written" + where);
}

// Whatever the ranges look like, an answer never claims an unwritten byte: a caller reads
// locally up to the gap's start, or the whole request when it is fully cached. While the
// ranges are disjoint the answer is exact: the gap starts at the first missing byte and ends
// at the start of the run that holds the request's last byte, or at the request's end.
void checkQuery(FilesystemCacheResource& resource, const Model& model, std::int64_t position,
                std::int64_t length) {
  const auto query = resource.queryRange(position, length);
  const std::string where = describe(position, length);
  if (!model.at(position)) {
    require(query.status == RangeStatus::NOT_CACHED && !query.gap, "uncached start" + where);
    return;
  }
  const std::int64_t end = position + std::max<std::int64_t>(length, 0);
  const std::int64_t missing = model.next(position, false);
  if (query.status == RangeStatus::FULLY_CACHED) {
    require(!query.gap && missing >= end,
            "a fully cached request holds only written bytes" + where);
    checkReadBack(resource, model, position, end, where);
    return;
  }
  require(query.status == RangeStatus::PARTIALLY_CACHED && query.gap, "partially cached" + where);
  require(query.gap->from > position && query.gap->from <= missing,
          "the bytes before the gap are written" + where);
  checkReadBack(resource, model, position, query.gap->from, where);
  if (!disjoint(resource)) return;
  require(missing < end, "a written request is fully cached while ranges are disjoint" + where);
  std::int64_t runStart = end - 1;
  while (model.at(runStart) && model.at(runStart - 1)) --runStart;
  const ByteRange gap{missing, model.at(end - 1) ? runStart : end};
  require(*query.gap == gap, "the gap while ranges are disjoint" + where + ": expected [" +
                                 std::to_string(gap.from) + ", " + std::to_string(gap.to) +
                                 "), got [" + std::to_string(query.gap->from) + ", " +
                                 std::to_string(query.gap->to) + ")");
}

void checkWholeAndNext(const FilesystemCacheResource& resource, const Model& model,
                       std::int64_t position) {
  require(resource.coversWhole(position) == (model.next(0, false) >= position),
          "whole body of " + std::to_string(position) + " bytes");
  std::optional<std::int64_t> expected;
  for (std::int64_t i = std::max<std::int64_t>(position + 1, 0); i < kModelSize; ++i) {
    if (model.valid[i] && (i == 0 || !model.valid[i - 1])) {
      expected = i;
      break;
    }
  }
  // Asked only where nothing is cached (reads fetch from there), it is the next written byte.
  require(model.at(position) || resource.firstCachedAfter(position) == expected,
          "first cached range after " + std::to_string(position));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 2048) return 0;
  fuzzsupport::Bytes in(data, size);
  auto record = std::make_shared<FileMetadata>(fsp::StorageIRI(u"overlay", u"/f"), false);
  record->setLastModified(boost::posix_time::ptime(boost::gregorian::date(2024, 3, 1)));
  FilesystemCacheResource resource(record, scratch());
  Model model;
  while (!in.empty()) {
    const int op = in.byte() % 16;
    const std::int64_t position = in.u16() % kSpan;
    if (op < 7) {
      const auto length = static_cast<std::int64_t>(in.byte() % (kMaxWrite + 1));
      const char fill = static_cast<char>('a' + op);
      const std::string bytes(static_cast<std::size_t>(length), fill);
      resource.write(position, bytes.data(), length);
      require(!resource.hasFailed(), "a write to the scratch body fails");
      for (auto i = position; i < position + length; ++i) model.valid[i] = true;
      model.bytes.replace(position, length, bytes);
    } else if (op < 12) {
      // Lengths reach past the model's end and include zero and negative ones.
      checkQuery(resource, model, position, static_cast<std::int64_t>(in.byte()) - 8);
    } else if (op < 15) {
      checkWholeAndNext(resource, model, position);
    } else {
      resource.doRemove();
      model = Model();
    }
    checkRanges(resource, model);
  }
  resource.doRemove();  // the next input starts with no body
  return 0;
}
