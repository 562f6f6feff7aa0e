#include <foundation/log/DiagnosticLogger.h>

#include <atomic>
#include <boost/log/attributes/constant.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/utility/setup/console.hpp>
#include <boost/smart_ptr/make_shared_object.hpp>
#include <cstdlib>
#include <iostream>
#include <mutex>

namespace foundation::log {

namespace detail {
// Which severities build records (may be widened by a LogCapture) and which of those the
// default stderr sink prints.
std::atomic<unsigned> recordMask{0};
std::atomic<unsigned> stderrMask{0};
}  // namespace detail

namespace {

unsigned maskFromEnvironment() {
  const char* text = std::getenv("FOUNDATION_LOG_MASK");
  if (text == nullptr || *text == '\0') return error | exception;
  return static_cast<unsigned>(std::strtoul(text, nullptr, 0));
}

std::once_flag maskOnce;
void initMask() {
  std::call_once(maskOnce, [] {
    const unsigned mask = maskFromEnvironment();
    detail::recordMask = mask;
    detail::stderrMask = mask;
  });
}

void printToStderr(const boost::log::record_view& record, boost::log::formatting_ostream& out) {
  const auto severity = boost::log::extract<unsigned>("Severity", record);
  const auto channel = boost::log::extract<std::string>("Channel", record);
  out << "[" << channel << "] " << severity << ": " << record[boost::log::expressions::smessage];
}

// Also makes Boost.Log's core. The library makes it lazily behind a once-flag of its own that
// it tests outside ThreadSanitizer's sight (the library is not instrumented), so a thread that
// found the core made by another one would seem to use it unsynchronised; made inside this
// std::call_once, which every logger and capture passes before it uses the core, it is seen
// as made before any use.
std::once_flag sinkOnce;
void installStderrSink() {
  std::call_once(sinkOnce, [] {
    using Backend = boost::log::sinks::text_ostream_backend;
    auto backend = boost::make_shared<Backend>();
    backend->add_stream(boost::shared_ptr<std::ostream>(&std::clog, boost::null_deleter()));
    backend->auto_flush(true);
    auto sink = boost::make_shared<boost::log::sinks::synchronous_sink<Backend>>(backend);
    sink->set_filter([](const boost::log::attribute_value_set& values) {
      const auto severity = boost::log::extract<unsigned>("Severity", values);
      return severity && (*severity & detail::stderrMask.load()) != 0;
    });
    sink->set_formatter(&printToStderr);
    boost::log::core::get()->add_sink(sink);
  });
}

}  // namespace

unsigned severityMask() {
  initMask();
  return detail::recordMask.load(std::memory_order_relaxed);
}

void setSeverityMask(unsigned mask) {
  initMask();
  detail::recordMask = mask;
  detail::stderrMask = mask;
}

namespace detail {
void initializeLogging() {
  initMask();
  installStderrSink();
}
}  // namespace detail

template <>
basic_diagnostic_logger<char>::basic_diagnostic_logger(std::string channel)
    // Initialised before the source, which takes the core.
    : channel_((detail::initializeLogging(), channel)),
      source_(boost::log::keywords::channel = channel) {}

template <>
void basic_diagnostic_logger<char>::write(unsigned severity, const std::string& message,
                                          const char* file, const char* function, int line) const {
  auto record = source_.open_record(boost::log::keywords::severity = severity);
  if (!record) return;
  auto& values = record.attribute_values();
  values.insert("File", boost::log::attributes::make_attribute_value(std::string(file)));
  values.insert("Function", boost::log::attributes::make_attribute_value(std::string(function)));
  values.insert("Line", boost::log::attributes::make_attribute_value(line));
  boost::log::record_ostream stream(record);
  stream << message;
  stream.flush();
  source_.push_record(std::move(record));
}

ScopedTrace::~ScopedTrace() {
  if (!entered_ && enabled_) {
    logger_.write(trace, "Entering", file_, function_, line_);
    entered_ = true;
  }
  if (entered_) logger_.write(trace, "Leaving", file_, function_, line_);
}

}  // namespace foundation::log
