// ObservableTransactionType: the kind of a change the overlay replays on its inner store.
//
// The executors carry the kind with every submitted task so that the queue can count what is
// waiting per kind and so that a dropped task can be named in the log. WAKEUP_FLUSH is the
// kind the BackendExecutor gives its own no-op markers (flush and shutdown wake-ups).
// A plain value type; safe to copy and print from any thread.
#pragma once

#include <cstdint>
#include <ostream>

namespace storage::overlayprovider {

// The numeric values appear in counters and logs of running systems: never renumber.
enum ObservableTransactionType : std::uint32_t {
  FILE_OPEN_READONLY = 0,
  FILE_OPEN_READWRITE = 1,
  FILE_WRITE = 2,
  FILE_CLOSE = 3,
  FILE_CREATION = 4,
  FILE_REMOVAL = 5,
  FILE_MOVE = 6,
  FILE_COPY = 7,
  FOLDER_CREATION = 8,
  FOLDER_CREATION_RECURSIVE = 9,
  FOLDER_REMOVAL = 10,
  FOLDER_REMOVAL_RECURSIVE = 11,
  FOLDER_MOVE = 12,
  SET_LAST_MODIFIED = 13,
  SET_WRITABLE = 14,
  WAKEUP_FLUSH = 15,
  EXTERNAL_EVENT = 16,
};

// Writes the member's name ("FILE_WRITE"). A value outside the set writes nothing: this is
// called while logging a dropped task, where throwing would lose the record altogether.
std::ostream& operator<<(std::ostream& out, ObservableTransactionType type);

// For a catch block around a task: "Task of kind <kind> failed" at error severity, then the
// caught exception's diagnostic text. Never throws.
void logFailedTask(ObservableTransactionType type) noexcept;

}  // namespace storage::overlayprovider
