// PendingWrites, merging, against a model of one file: the writer's writes land in the cached
// body and go to PendingWrites; the blocks it hands over join a queue that a replay drains,
// in order, into a model store, a block that refers to the body reading the body as it is
// then. The input picks the capacity, then writes (anywhere in the first 4 KiB, so that they
// overlap, leave holes and come out of order), replays of some queued blocks, closes (every
// pending block handed over) and a body failure (every block still to be sent copies its bytes
// out of the body, and later writes reach only the blocks). Checked after each step: pending
// blocks are sorted, each within one window of the capacity, at most kMaxBlocks, and every
// block handed over fits the capacity; at the end, once everything is replayed, the store holds
// exactly the bytes written.
#include "FuzzSupport.h"

#include "core/workingfiles/PendingWrites.h"

#include <deque>
#include <memory>
#include <string>

namespace {

using fuzzsupport::require;
using storage::overlayprovider::PendingWriteBlock;
using storage::overlayprovider::PendingWrites;

constexpr std::int64_t kFileSpan = 4096;

struct Model {
  std::string file;  // what the writer wrote, holes as zeros
  std::string body;  // the cached body; frozen once it fails
  std::string store;
  bool bodyFailed = false;
  std::deque<std::shared_ptr<PendingWriteBlock>> queue;
};

void put(std::string& target, std::int64_t offset, std::string_view bytes) {
  const auto end = static_cast<std::size_t>(offset) + bytes.size();
  if (target.size() < end) target.resize(end, '\0');
  target.replace(static_cast<std::size_t>(offset), bytes.size(), bytes);
}

void replay(Model& model, std::size_t count) {
  for (; count > 0 && !model.queue.empty(); --count) {
    const auto block = model.queue.front();
    model.queue.pop_front();
    if (block->refersToBody()) {
      require(!model.bodyFailed, "a block still refers to a failed body");
      require(block->start() + block->size() <= static_cast<std::int64_t>(model.body.size()),
              "a block refers to bytes the body does not hold");
      put(model.store, block->start(),
          std::string_view(model.body)
              .substr(static_cast<std::size_t>(block->start()),
                      static_cast<std::size_t>(block->size())));
    } else {
      put(model.store, block->start(), std::string_view(block->bytes().data(), block->size()));
    }
  }
}

void check(const PendingWrites& pending, std::int64_t capacity) {
  const auto& blocks = pending.blocks();
  require(blocks.size() <= PendingWrites::kMaxBlocks, "no more pending blocks than are kept");
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    const auto& block = *blocks[i];
    require(block.size() > 0, "no empty block waits");
    require(block.start() / capacity == (block.start() + block.size() - 1) / capacity,
            "a block stays within its window");
    if (i > 0) require(blocks[i - 1]->start() < block.start(), "pending blocks are sorted");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 4096) return 0;
  fuzzsupport::Bytes in(data, size);
  const std::int64_t capacity = 1 + in.byte() % 200;
  PendingWrites pending(capacity, true);
  Model model;
  const auto handOver = [&](PendingWrites::Blocks& blocks) {
    for (auto& block : blocks) {
      require(block->size() <= capacity, "a block handed over fits the capacity");
      model.queue.push_back(std::move(block));
    }
    blocks.clear();
  };
  const auto readBody = [&model](std::int64_t position, char* buffer, std::int64_t count) {
    const auto available = static_cast<std::int64_t>(model.body.size()) - position;
    const auto n = std::max<std::int64_t>(0, std::min(count, available));
    model.body.copy(buffer, static_cast<std::size_t>(n), static_cast<std::size_t>(position));
    return n;
  };
  PendingWrites::Blocks blocks;
  while (!in.empty()) {
    const int op = in.byte() % 10;
    if (op < 7) {
      const std::int64_t offset = in.u16() % kFileSpan;
      const std::string bytes(in.take(1 + in.byte() % 64));
      if (bytes.empty()) continue;  // the working file passes no empty write on
      put(model.file, offset, bytes);
      if (!model.bodyFailed) put(model.body, offset, bytes);
      pending.record(offset, bytes.data(), static_cast<std::int64_t>(bytes.size()),
                     !model.bodyFailed, false, blocks);
      handOver(blocks);
    } else if (op == 7) {
      replay(model, in.byte() % 8);
    } else if (op == 8) {
      pending.takeAll(blocks);
      handOver(blocks);
    } else if (!model.bodyFailed) {
      // What the working file does when its body fails: every unsent byte is copied out.
      model.bodyFailed = true;
      for (const auto& block : model.queue) block->materialise(readBody);
      for (const auto& block : pending.blocks()) block->materialise(readBody);
    }
    check(pending, capacity);
  }
  pending.takeAll(blocks);
  handOver(blocks);
  replay(model, model.queue.size());
  require(pending.empty(), "nothing waits after a close");
  require(model.store == model.file, "the store holds exactly the bytes written");
  return 0;
}
