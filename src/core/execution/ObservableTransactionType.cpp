#include "core/execution/ObservableTransactionType.h"

#include "core/support/OverlayLog.h"

#include <array>
#include <string_view>

namespace storage::overlayprovider {

namespace {

constexpr std::array<std::string_view, 17> kNames = {
    "FILE_OPEN_READONLY", "FILE_OPEN_READWRITE",
    "FILE_WRITE",         "FILE_CLOSE",
    "FILE_CREATION",      "FILE_REMOVAL",
    "FILE_MOVE",          "FILE_COPY",
    "FOLDER_CREATION",    "FOLDER_CREATION_RECURSIVE",
    "FOLDER_REMOVAL",     "FOLDER_REMOVAL_RECURSIVE",
    "FOLDER_MOVE",        "SET_LAST_MODIFIED",
    "SET_WRITABLE",       "WAKEUP_FLUSH",
    "EXTERNAL_EVENT",
};

}  // namespace

std::ostream& operator<<(std::ostream& out, ObservableTransactionType type) {
  const auto index = static_cast<std::uint32_t>(type);
  if (index < kNames.size()) {
    out << kNames[index];
  }
  return out;
}

void logFailedTask(ObservableTransactionType type) noexcept {
  try {
    OVERLAY_LOG(foundation::log::error) << "Task of kind " << type << " failed";
  } catch (...) {
  }
  logCaughtException(nullptr);
}

}  // namespace storage::overlayprovider
