// basic_diagnostic_logger: a named logging channel on Boost.Log, with single-bit numeric
// severities and one process-wide mask that decides which severities are enabled.
//
//   static const foundation::log::diagnostic_logger logger("storage::overlayprovider");
//   FOUNDATION_LOG(logger, foundation::log::error) << "Something failed: " << detail;
//
// A record is built (its stream expression evaluated) only when its severity is enabled.
// Each record carries the attributes Channel, Severity, File, Function (the full signature)
// and Line. Records go to Boost.Log's core; unless a program installs its own sinks, the
// first logger made installs a sink that writes enabled records to stderr.
//
// The mask starts from the environment variable FOUNDATION_LOG_MASK (decimal, or hex with
// "0x"; for example 0x3ff enables everything) and defaults to error | exception.
// Thread safety: loggers and the mask may be used from any thread.
#pragma once

#include <boost/current_function.hpp>
#include <boost/log/sources/channel_feature.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <sstream>
#include <string>

namespace foundation::log {

// Severities: each a single bit.
enum Severity : unsigned {
  trace = 1,
  verbose = 2,
  debug = 4,
  notice = 8,  // also the informational level
  info = 8,
  exception = 16,  // detail of a caught exception, after "Exception caught: "
  warning = 64,
  error = 512,
};
inline constexpr unsigned kAllSeverities = 0x3ff;

unsigned severityMask();
void setSeverityMask(unsigned mask);
inline bool isSeverityEnabled(unsigned severity) { return (severityMask() & severity) != 0; }

template <class CharT>
class basic_diagnostic_logger {
 public:
  using source_type =
      boost::log::sources::severity_channel_logger_mt<unsigned, std::basic_string<CharT>>;

  explicit basic_diagnostic_logger(std::basic_string<CharT> channel);

  const std::basic_string<CharT>& channel() const { return channel_; }
  bool isEnabled(unsigned severity) const { return isSeverityEnabled(severity); }
  // Writes one record (does not check the mask; FOUNDATION_LOG does).
  void write(unsigned severity, const std::basic_string<CharT>& message, const char* file,
             const char* function, int line) const;

 private:
  std::basic_string<CharT> channel_;
  mutable source_type source_;
};

// The narrow logger is the one the framework builds (in its library).
template <>
basic_diagnostic_logger<char>::basic_diagnostic_logger(std::string channel);
template <>
void basic_diagnostic_logger<char>::write(unsigned severity, const std::string& message,
                                          const char* file, const char* function, int line) const;

using diagnostic_logger = basic_diagnostic_logger<char>;

// Builds one record's text and writes it at the end of the statement; used by FOUNDATION_LOG.
class RecordBuilder {
 public:
  RecordBuilder(const diagnostic_logger& logger, unsigned severity, const char* file,
                const char* function, int line)
      : logger_(logger),
        severity_(severity),
        file_(file),
        function_(function),
        line_(line),
        open_(logger.isEnabled(severity)) {}
  bool open() const { return open_; }
  std::ostringstream& stream() { return text_; }
  void commit() {
    logger_.write(severity_, text_.str(), file_, function_, line_);
    open_ = false;
  }

 private:
  const diagnostic_logger& logger_;
  unsigned severity_;
  const char* file_;
  const char* function_;
  int line_;
  bool open_;
  std::ostringstream text_;
};

// A trace record on entry ("Entering") and on exit ("Leaving") of a scope, naming the source
// file given, the function's full signature and the line. withIri adds " iri=<location>" to
// the entry record; both records are written only when the trace severity is enabled.
class ScopedTrace {
 public:
  ScopedTrace(const diagnostic_logger& logger, const char* file, const char* function, int line)
      : logger_(logger),
        file_(file),
        function_(function),
        line_(line),
        enabled_(logger.isEnabled(trace)) {}
  ScopedTrace(const ScopedTrace&) = delete;
  ScopedTrace& operator=(const ScopedTrace&) = delete;

  template <class Location>
  ScopedTrace& withIri(const Location& location) {
    if (enabled_) {
      std::ostringstream text;
      text << "Entering iri=" << location;
      logger_.write(trace, text.str(), file_, function_, line_);
      entered_ = true;
    }
    return *this;
  }
  ~ScopedTrace();

 private:
  const diagnostic_logger& logger_;
  const char* file_;
  const char* function_;
  int line_;
  bool enabled_;
  bool entered_ = false;
};

}  // namespace foundation::log

#define FOUNDATION_LOG_FROM(logger, severity, file)                                           \
  for (::foundation::log::RecordBuilder foundation_record_((logger), (severity), (file),      \
                                                           BOOST_CURRENT_FUNCTION, __LINE__); \
       foundation_record_.open(); foundation_record_.commit())                                \
  foundation_record_.stream()

#define FOUNDATION_LOG(logger, severity) FOUNDATION_LOG_FROM(logger, severity, __FILE__)

#define FOUNDATION_TRACE_SCOPE(logger, file)                                                       \
  ::foundation::log::ScopedTrace foundation_trace_scope_((logger), (file), BOOST_CURRENT_FUNCTION, \
                                                         __LINE__)

// As FOUNDATION_TRACE_SCOPE, with " iri=<location>" on the entry record.
#define FOUNDATION_TRACE_SCOPE_IRI(logger, file, iri) \
  FOUNDATION_TRACE_SCOPE(logger, file);               \
  foundation_trace_scope_.withIri(iri)
