#include <foundation/log/LogCapture.h>

#include <atomic>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/smart_ptr/make_shared_object.hpp>

namespace foundation::log {

namespace detail {
extern std::atomic<unsigned> recordMask;
void initializeLogging();
}  // namespace detail

struct LogCapture::State {
  mutable std::mutex mutex;
  std::vector<CapturedRecord> records;
};

namespace {

// The capture that records go to, if any. Never destroyed: a thread may still be logging
// while the process exits.
struct Target {
  std::mutex mutex;
  std::shared_ptr<LogCapture::State> state;
};

Target& target() {
  static auto* const instance = new Target;
  return *instance;
}

// The one sink of every capture. It is installed by the first capture and never removed, so no
// capture ever frees a sink: Boost.Log's core keeps a sink alive while a thread consumes a
// record in it only by a reference count that it drops inside the (uninstrumented) library, so a
// capture that freed its own sink could free it under a thread still inside it as far as
// ThreadSanitizer can tell. A capture only attaches and detaches its state here, under
// Target::mutex; a record being consumed holds the state it found, so a capture that ends
// meanwhile frees nothing that thread still uses.
class CaptureBackend
    : public boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
 public:
  void consume(const boost::log::record_view& record) {
    std::shared_ptr<LogCapture::State> state;
    {
      std::lock_guard lock(target().mutex);
      state = target().state;
    }
    if (!state) return;
    CapturedRecord captured;
    captured.channel =
        boost::log::extract_or_default<std::string>("Channel", record, std::string());
    captured.severity = boost::log::extract_or_default<unsigned>("Severity", record, 0u);
    captured.message =
        boost::log::extract_or_default<std::string>("Message", record, std::string());
    captured.file = boost::log::extract_or_default<std::string>("File", record, std::string());
    captured.function =
        boost::log::extract_or_default<std::string>("Function", record, std::string());
    captured.line = boost::log::extract_or_default<int>("Line", record, 0);
    std::lock_guard lock(state->mutex);
    state->records.push_back(std::move(captured));
  }
};

void installCaptureSink() {
  static std::once_flag once;
  std::call_once(once, [] {
    boost::log::core::get()->add_sink(
        boost::make_shared<boost::log::sinks::synchronous_sink<CaptureBackend>>());
  });
}

}  // namespace

LogCapture::LogCapture(unsigned mask)
    : state_(std::make_shared<State>()), previousMask_(severityMask()) {
  detail::initializeLogging();  // the core, made the way every logger makes it
  installCaptureSink();
  {
    std::lock_guard lock(target().mutex);
    target().state = state_;
  }
  // Only record creation is widened; the stderr sink keeps printing what it printed before.
  detail::recordMask = mask;
}

LogCapture::~LogCapture() {
  detail::recordMask = previousMask_;
  std::lock_guard lock(target().mutex);
  if (target().state == state_) target().state.reset();
}

std::vector<CapturedRecord> LogCapture::records() const {
  std::lock_guard lock(state_->mutex);
  return state_->records;
}

std::vector<CapturedRecord> LogCapture::matching(const std::string& text, unsigned severity) const {
  std::vector<CapturedRecord> found;
  for (auto& record : records()) {
    const bool severityMatches = severity == 0 || record.severity == severity;
    if (severityMatches && record.message.find(text) != std::string::npos) {
      found.push_back(std::move(record));
    }
  }
  return found;
}

void LogCapture::clear() {
  std::lock_guard lock(state_->mutex);
  state_->records.clear();
}

}  // namespace foundation::log
