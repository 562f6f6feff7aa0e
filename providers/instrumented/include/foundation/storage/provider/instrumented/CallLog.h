// CallLog: the changes a store has applied, in the order they completed, for tests that check
// the order in which a client (an overlay's replay, say) sends them: each is recorded once the
// store's own call has returned, so a change that started only after another completed is
// always recorded after it. Reads and failed calls are not recorded. A test may tag each call
// with what it knows of the calling thread (which queued change of the client sent it, say):
// the log stays ignorant of the client, the test supplies the function.
//
// Off until enabled (a long run would otherwise keep every call). Ownership: held by
// Instrumentation, shared by the provider and its streams. Locks: one mutex of its own, held
// only inside each call (and while the tagger runs). Thread safety: any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
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
    std::uint64_t tag = 0;       // the tagger's answer on the calling thread; 0 without one
  };

  void enable(bool on) { enabled_.store(on); }
  bool enabled() const { return enabled_.load(); }
  // Asked, on the thread that made each call, for the call's tag; it runs under the log's mutex,
  // so it must not use the log.
  void setTagger(std::function<std::uint64_t()> tagger);
  void record(Call call);
  std::vector<Call> calls() const;

 private:
  std::atomic<bool> enabled_{false};
  mutable std::mutex mutex_;
  std::vector<Call> calls_;
  std::function<std::uint64_t()> tagger_;
};

}  // namespace foundation::storage::provider::instrumented
