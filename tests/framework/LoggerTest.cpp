#include <foundation/log/LogCapture.h>

#include <gtest/gtest.h>

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
