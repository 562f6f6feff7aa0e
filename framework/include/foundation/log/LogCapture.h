// LogCapture: collects the log records written while it lives, for tests that assert exact
// records. Attaches itself to the process's one capture sink (a Boost.Log sink installed by the
// first capture and never removed) and sets the severity mask (restored on destruction).
// Captures may not be nested. Thread safety: records may be written from any thread, also
// while the capture is destroyed: a record that another thread is writing then is dropped or
// lands in the capture's storage, which that thread holds until it is done; the accessors take
// the capture's own mutex.
#pragma once

#include <foundation/log/DiagnosticLogger.h>

#include <boost/shared_ptr.hpp>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace foundation::log {

struct CapturedRecord {
  std::string channel;
  unsigned severity = 0;
  std::string message;
  std::string file;
  std::string function;
  int line = 0;
};

class LogCapture {
 public:
  explicit LogCapture(unsigned mask = kAllSeverities);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<CapturedRecord> records() const;
  // Records whose message contains `text` (at `severity` when it is not 0).
  std::vector<CapturedRecord> matching(const std::string& text, unsigned severity = 0) const;
  std::size_t count(const std::string& text, unsigned severity = 0) const {
    return matching(text, severity).size();
  }
  void clear();

  struct State;

 private:
  std::shared_ptr<State> state_;
  unsigned previousMask_;
};

}  // namespace foundation::log
