// PendingWriteBlock against a model: the bytes appended so far (in order), and a model of the
// cached body the block may refer to. The input picks the block's start and capacity, then a
// sequence of appends (contiguous or not, in the body or not), body overwrites and shrinks,
// and materialisations. Checked after each: the answer follows the block's rules, the block
// spans exactly the accepted bytes, and once it holds them they are the bytes the writer gave,
// or, while it refers to the body, the body's bytes at the time it copies them.
#include "FuzzSupport.h"

#include "core/workingfiles/PendingWriteBlock.h"

#include <stdexcept>
#include <string>

namespace {

using fuzzsupport::require;
using storage::overlayprovider::PendingWriteBlock;

constexpr std::int64_t kBodySize = 4096;

struct Model {
  std::int64_t start = 0;
  std::int64_t capacity = 1;
  std::string written;  // what the writer handed over, in order
  std::string body;     // the cached body (its bytes beyond its size do not exist)
  std::int64_t bodySize = kBodySize;
  bool refersToBody = false;
};

// While the block refers to the body, the bytes it stands for are the body's current ones.
void followBody(Model& model) {
  if (!model.refersToBody) return;
  model.written = model.body.substr(static_cast<std::size_t>(model.start), model.written.size());
}

void checkBlock(const PendingWriteBlock& block, const Model& model) {
  require(block.start() == model.start, "a block keeps its start");
  require(block.size() == static_cast<std::int64_t>(model.written.size()),
          "a block spans the bytes it took");
  require(block.refersToBody() == model.refersToBody,
          "a block refers to the body while every byte it took is there");
  if (!model.refersToBody) {
    require(std::string(block.bytes().begin(), block.bytes().end()) == model.written,
            "a block's copy holds the bytes written, in order");
  } else {
    require(block.bytes().empty(), "a block that refers to the body holds no copy");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 4096) return 0;
  fuzzsupport::Bytes in(data, size);
  Model model;
  model.start = in.u16() % 1024;
  model.capacity = 1 + in.byte() % 128;
  model.body.assign(kBodySize, '\0');
  PendingWriteBlock block(model.start, model.capacity);
  const auto readBody = [&model](std::int64_t position, char* buffer, std::int64_t count) {
    const std::int64_t n = std::max<std::int64_t>(0, std::min(count, model.bodySize - position));
    model.body.copy(buffer, static_cast<std::size_t>(n), static_cast<std::size_t>(position));
    return n;
  };
  while (!in.empty()) {
    const int op = in.byte() % 8;
    if (op < 5) {
      // Appends: mostly contiguous, sometimes one byte off either way.
      const std::int64_t next = model.start + static_cast<std::int64_t>(model.written.size());
      const std::int64_t offset = next + (op == 4 ? (in.byte() % 2 ? 1 : -1) : 0);
      const bool inBody = in.byte() % 2 == 0;
      const auto count = static_cast<std::int64_t>(in.byte() % 160);
      const std::string bytes(in.take(static_cast<std::size_t>(count)));
      const auto taken = static_cast<std::int64_t>(bytes.size());
      const bool fits = model.written.size() + taken < static_cast<std::size_t>(model.capacity);
      const bool expectTaken = offset == next && (fits || taken >= model.capacity);
      if (inBody) {
        // The writer puts the bytes in the body before handing them to the block.
        if (offset < 0 || offset + taken > kBodySize) continue;
        model.body.replace(offset, taken, bytes);
        model.bodySize = std::max(model.bodySize, offset + taken);
        followBody(model);
      }
      PendingWriteBlock::Answer answer;
      try {
        answer = block.append(offset, bytes.data(), taken, inBody);
      } catch (const std::logic_error&) {
        require(expectTaken && !inBody && model.refersToBody,
                "append refuses only bytes outside the body for a block that refers to it");
        continue;
      }
      if (!expectTaken) {
        require(answer == PendingWriteBlock::NOT_CONTIGUOUS, "a block takes only what fits");
      } else {
        require(answer == (taken >= model.capacity ? PendingWriteBlock::APPENDED_HAND_OVER
                                                   : PendingWriteBlock::APPENDED),
                "a write that fills a block on its own hands it over");
        if (!inBody && !model.written.empty() && model.refersToBody) {
          fuzzsupport::fail("a block that refers to the body took bytes outside it");
        }
        if (model.written.empty()) model.refersToBody = inBody && taken > 0;
        model.written += bytes;
      }
    } else if (op == 5) {
      // A later write lands in the body over bytes still referred to.
      const std::int64_t at = in.u16() % kBodySize;
      model.body[static_cast<std::size_t>(at)] = static_cast<char>(in.byte());
      followBody(model);
    } else if (op == 6) {
      model.bodySize = in.u16() % (kBodySize + 1);
    } else {
      const bool bodyHoldsAll =
          model.start + static_cast<std::int64_t>(model.written.size()) <= model.bodySize;
      try {
        block.materialise(readBody);
        require(!model.refersToBody || bodyHoldsAll, "materialise copied bytes the body lacks");
        model.refersToBody = false;
      } catch (const std::runtime_error&) {
        require(model.refersToBody && !bodyHoldsAll,
                "materialise fails only when the body is short");
      }
    }
    checkBlock(block, model);
  }
  return 0;
}
