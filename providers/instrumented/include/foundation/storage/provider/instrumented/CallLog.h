// CallLog: the changes a store has applied, in the order they completed, for tests that check
// the order in which a client (an overlay's replay, say) sends them: each is recorded once the
// store's own call has returned, so a change that started only after another completed is
// always recorded after it. Reads and failed calls are not recorded.
//
// Off until enabled (a long run would otherwise keep every call). Ownership: held by
// Instrumentation, shared by the provider and its streams. Locks: one mutex of its own, held
// only inside each call. Thread safety: any thread.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace foundation::storage::provider::instrumented {

class CallLog {
 public:
  struct Call {
    std::string operation;  // "createFile", "moveFolder", "streamWrite", ...
    std::u16string path;
    std::u16string destination;  // moves and copies
    bool creates = false;        // an openStream that may create the file
  };

  void enable(bool on) { enabled_.store(on); }
  bool enabled() const { return enabled_.load(); }
  void record(Call call);
  std::vector<Call> calls() const;

 private:
  std::atomic<bool> enabled_{false};
  mutable std::mutex mutex_;
  std::vector<Call> calls_;
};

}  // namespace foundation::storage::provider::instrumented
