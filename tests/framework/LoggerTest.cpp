#include <foundation/log/LogCapture.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using namespace foundation::log;

namespace {

const diagnostic_logger& testLogger() {
  static const diagnostic_logger logger("test::channel");
  return logger;
}

int evaluations = 0;
int expensive() {
  ++evaluations;
  return 42;
}

}  // namespace

TEST(DiagnosticLogger, RecordsCarryChannelSeveritySourceAndText) {
  LogCapture capture(error | notice);
  FOUNDATION_LOG(testLogger(), error) << "failed " << 3;
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].channel, "test::channel");
  EXPECT_EQ(records[0].severity, 512u);
  EXPECT_EQ(records[0].message, "failed 3");
  EXPECT_NE(records[0].file.find("LoggerTest.cpp"), std::string::npos);
  EXPECT_NE(records[0].function.find("TestBody"), std::string::npos);
  EXPECT_GT(records[0].line, 0);
}

TEST(DiagnosticLogger, DisabledSeveritiesBuildNoRecord) {
  LogCapture capture(error);
  evaluations = 0;
  FOUNDATION_LOG(testLogger(), debug) << "value " << expensive();
  EXPECT_EQ(evaluations, 0);
  EXPECT_TRUE(capture.records().empty());
  FOUNDATION_LOG(testLogger(), error) << "value " << expensive();
  EXPECT_EQ(evaluations, 1);
  EXPECT_EQ(capture.count("value 42", error), 1u);
}

TEST(DiagnosticLogger, CaptureRestoresTheMaskItReplaced) {
  const unsigned before = severityMask();
  {
    LogCapture capture(kAllSeverities);
    EXPECT_EQ(severityMask(), kAllSeverities);
  }
  EXPECT_EQ(severityMask(), before);
}

TEST(ScopedTrace, NamesTheGivenFileAndTheFullSignatureAndIsSilentWhenTraceIsOff) {
  {
    LogCapture capture(error);
    { FOUNDATION_TRACE_SCOPE_IRI(testLogger(), "src/core/Example", "mem:/a"); }
    EXPECT_TRUE(capture.records().empty());
  }
  LogCapture capture(trace);
  { FOUNDATION_TRACE_SCOPE_IRI(testLogger(), "src/core/Example", "mem:/a"); }
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].message, "Entering iri=mem:/a");
  EXPECT_EQ(records[0].file, "src/core/Example");
  EXPECT_NE(records[0].function.find("ScopedTrace_NamesTheGivenFile"), std::string::npos);
  EXPECT_EQ(records[1].message, "Leaving");
}

// A capture ends while another thread is inside the capture sink: the record being consumed
// there must neither reach freed memory nor leave a sink to be freed under the writer. With a
// sink of its own per capture, removed and freed by the capture's destructor, ThreadSanitizer
// reported the sink freed under the writer (the writer's release of the sink happens inside
// Boost.Log, which is not instrumented) in every run of this test.
TEST(LogCapture, EndsSafelyWhileAnotherThreadIsLogging) {
  testLogger();  // made before the writer starts, as the overlay's loggers usually are
  std::atomic<bool> done{false};
  std::thread writer([&] {
    while (!done.load()) FOUNDATION_LOG(testLogger(), debug) << "from the writer";
  });
  for (int round = 0; round < 100; ++round) {
    LogCapture capture(debug);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (capture.records().empty() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
    EXPECT_FALSE(capture.records().empty());
  }
  done = true;
  writer.join();
}
