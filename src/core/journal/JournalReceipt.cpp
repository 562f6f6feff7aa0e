#include "core/journal/JournalReceipt.h"

#include "core/journal/ChangeJournal.h"
#include "core/support/OverlayLog.h"

namespace storage::overlayprovider {

JournalReceipt::JournalReceipt(std::shared_ptr<ChangeJournal> journal,
                               std::vector<std::uint64_t> records)
    : journal_(std::move(journal)), records_(std::move(records)) {}

void JournalReceipt::confirm() noexcept {
  if (confirmed_.exchange(true) || !journal_) return;
  try {
    for (const auto record : records_) journal_->confirm(record);
  } catch (...) {
    logCaughtException("Confirming journal records failed; they will be replayed again.");
  }
}

}  // namespace storage::overlayprovider
