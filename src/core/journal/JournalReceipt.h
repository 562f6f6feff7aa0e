// JournalReceipt: the journal records that one queued replay task answers for. When the task
// has made its change on the store, or a later change has made it moot, the records are
// confirmed, so that the journal forgets them and a later process does not replay them.
//
// A task that never ran (dropped by a cancelling shutdown, or by a crash) never confirms:
// its records stay pending and the next provider over the same cache root replays them.
//
// Ownership: made by the submitter and shared by the task's two halves (run and moot), of
// which at most one confirms. Threads: confirm() on the replay worker that ran the task.
// Locks: none of its own; ChangeJournal::confirm takes the journal's.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace storage::overlayprovider {

class ChangeJournal;

class JournalReceipt {
 public:
  JournalReceipt(std::shared_ptr<ChangeJournal> journal, std::vector<std::uint64_t> records);

  // Confirms the records the first time; later calls do nothing. Never throws (a failure is
  // logged: the records are then replayed again by the next process, which is harmless).
  void confirm() noexcept;

 private:
  std::shared_ptr<ChangeJournal> journal_;
  std::vector<std::uint64_t> records_;
  std::atomic<bool> confirmed_{false};
};

}  // namespace storage::overlayprovider
