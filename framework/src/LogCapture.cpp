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
}

struct LogCapture::State {
  mutable std::mutex mutex;
  std::vector<CapturedRecord> records;
  boost::shared_ptr<boost::log::sinks::sink> sink;
};

namespace {

class CaptureBackend
    : public boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
 public:
  explicit CaptureBackend(std::shared_ptr<LogCapture::State> state) : state_(std::move(state)) {}

  void consume(const boost::log::record_view& record) {
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
    std::lock_guard lock(state_->mutex);
    state_->records.push_back(std::move(captured));
  }

 private:
  std::shared_ptr<LogCapture::State> state_;
};

}  // namespace

LogCapture::LogCapture(unsigned mask)
    : state_(std::make_shared<State>()), previousMask_(severityMask()) {
  auto sink = boost::make_shared<boost::log::sinks::synchronous_sink<CaptureBackend>>(
      boost::make_shared<CaptureBackend>(state_));
  state_->sink = sink;
  boost::log::core::get()->add_sink(sink);
  // Only record creation is widened; the stderr sink keeps printing what it printed before.
  detail::recordMask = mask;
}

LogCapture::~LogCapture() {
  detail::recordMask = previousMask_;
  boost::log::core::get()->remove_sink(state_->sink);
  // The sink's backend holds the state; dropping the sink breaks that cycle.
  state_->sink.reset();
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
