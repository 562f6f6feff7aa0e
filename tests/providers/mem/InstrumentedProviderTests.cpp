// The instrumented wrapper: each public operation counted once, injected failures that
// stop before the inner provider and then recover, added latency, exact counts under
// concurrency, and configuration and shutdown passing through. Events pass through as the
// contract suite checks (run through the wrapper); a foreign failure is thrown as the quota
// accountant's test expects (QuotaAccountantTest.ForeignFailureIsLoggedAndALaterPollStillSucceeds).
#include "../ProviderTestSupport.h"

#include <foundation/storage/provider/ByteStreamFailure.h>
#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/instrumented/InstrumentedProvider.h>
#include <foundation/storage/provider/mem/MemProvider.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <latch>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

namespace fsp = foundation::storage::provider;
using fsp::ErrorCode;
using fsp::StorageIRI;
using fsp::instrumented::InstrumentedProvider;
using fsp::mem::MemProvider;
using fsp::test::errorOf;
using fsp::test::refusalOf;
using Clock = std::chrono::steady_clock;

StorageIRI at(const std::u16string& path) { return StorageIRI(u"mem", path); }

class InstrumentedProviderTest : public ::testing::Test {
 protected:
  std::shared_ptr<MemProvider> mem = std::make_shared<MemProvider>();
  InstrumentedProvider wrapper{mem};
};

TEST_F(InstrumentedProviderTest, CountsEachPublicOperationOnceEvenWhereTheInnerOneRecurses) {
  mem->createFolderRecursive(at(u"/a/b/c"));
  mem->createFile(at(u"/a/b/c/f"));

  EXPECT_EQ(wrapper.listAllRecursive(at(u"/"))->hasNext(), true);
  wrapper.listAllRecursiveNamesOnly(at(u"/"), u"*");
  wrapper.listAllNamesOnly(at(u"/a"));  // the inner default lists through its own listAll
  wrapper.exists(at(u"/a"));            // the inner default asks fileExists and folderExists
  wrapper.listAll(at(u"/a"), u"b*");

  EXPECT_EQ(wrapper.callCount("listAllRecursive"), 1u);
  EXPECT_EQ(wrapper.callCount("listAllRecursiveNamesOnly"), 1u);
  EXPECT_EQ(wrapper.callCount("listAllNamesOnly"), 1u);
  EXPECT_EQ(wrapper.callCount("exists"), 1u);
  EXPECT_EQ(wrapper.callCount("listAll"), 1u);
  EXPECT_EQ(wrapper.callCount("fileExists"), 0u);
  EXPECT_EQ(wrapper.totalCalls(), 5u);

  wrapper.resetCounters();
  EXPECT_EQ(wrapper.totalCalls(), 0u);
  EXPECT_EQ(wrapper.callCount("listAll"), 0u);
}

TEST_F(InstrumentedProviderTest, FailNextFailsThatManyCallsBeforeTheInnerStoreThenRecovers) {
  wrapper.failNext("createFile", 2, ErrorCode::Unavailable);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(refusalOf([&] { wrapper.createFile(at(u"/f")); }),
              std::pair(ErrorCode::Unavailable, at(u"/f")));
    EXPECT_FALSE(mem->fileExists(at(u"/f")));
  }
  wrapper.createFile(at(u"/f"));
  EXPECT_TRUE(mem->fileExists(at(u"/f")));
  EXPECT_EQ(wrapper.callCount("createFile"), 3u);
  wrapper.createFolder(at(u"/other"));  // other operations were never armed
}

TEST_F(InstrumentedProviderTest, StreamFailuresAreThrownAsTheStreamFailureKind) {
  auto stream = wrapper.openStream(at(u"/f"), fsp::ByteStreamOpenOptions::overwrite());
  wrapper.failNext("streamWrite", 1, ErrorCode::IOError);
  EXPECT_EQ(errorOf<fsp::ByteStreamWriteFailure>([&] { stream->write("x", 1); }),
            ErrorCode::IOError);
  EXPECT_EQ(stream->write("y", 1), 1);
  stream->close();
  EXPECT_EQ(mem->getFileAttributes(at(u"/f")).getSize(), 1u);
}

// The delay stands for the network: store calls and stream calls pay it, the queries that a
// remote store answers from memory do not, yet are still counted and can still be failed.
// Streams the wrapper opens count their own calls, and a delayed call takes at least the delay.
// (That calls reach the inner store unchanged is the contract suite's part, run through the
// wrapper.)
TEST_F(InstrumentedProviderTest, DelaysOnlyTheCallsThatWouldCrossTheNetwork) {
  mem->createFile(at(u"/f"));
  fsp::ByteStreamPtr wrappedStream;
  char buffer[1];
  constexpr auto kDelay = std::chrono::milliseconds(5);
  wrapper.setCallLatency(kDelay);
  wrapper.setStreamLatency(kDelay);

  struct Case {
    const char* operation;
    std::function<void()> call;
    std::uint64_t callDelays;
    std::uint64_t streamDelays;
  };
  const Case cases[] = {
      {"hasFeature", [&] { wrapper.hasFeature(fsp::ExtendedFeature::ReadWrite); }, 0, 0},
      {"getFilenameSensitivity", [&] { wrapper.getFilenameSensitivity(at(u"/f")); }, 0, 0},
      {"getPathComparator", [&] { wrapper.getPathComparator(at(u"/f")); }, 0, 0},
      {"getCanonicalLocation", [&] { wrapper.getCanonicalLocation(at(u"/f")); }, 0, 0},
      {"getProviderCacheUsage", [&] { wrapper.getProviderCacheUsage(at(u"/")); }, 0, 0},
      {"fileExists", [&] { wrapper.fileExists(at(u"/f")); }, 1, 0},
      {"getFileAttributes", [&] { wrapper.getFileAttributes(at(u"/f")); }, 1, 0},
      {"getProviderStorageInfo", [&] { wrapper.getProviderStorageInfo(at(u"/")); }, 1, 0},
      {"configure", [&] { wrapper.configure(boost::property_tree::ptree()); }, 1, 0},
      {"openStream",
       [&] {
         wrappedStream = wrapper.openStream(at(u"/w"), fsp::ByteStreamOpenOptions::overwrite());
       },
       1, 0},
      {"streamWrite", [&] { wrappedStream->write("x", 1); }, 0, 1},
      {"streamSeek", [&] { wrappedStream->seek(0, std::ios_base::beg); }, 0, 1},
      {"streamRead", [&] { wrappedStream->read(buffer, 1); }, 0, 1},
      {"streamClose", [&] { wrappedStream->close(); }, 0, 1},
  };
  const auto& latency = wrapper.instrumentation().latency;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.operation);
    const auto calls = wrapper.callCount(c.operation);
    const auto callDelays = latency.callDelaysApplied();
    const auto streamDelays = latency.streamDelaysApplied();
    const auto start = Clock::now();
    c.call();
    EXPECT_GE(Clock::now() - start, static_cast<long>(c.callDelays + c.streamDelays) * kDelay);
    EXPECT_EQ(wrapper.callCount(c.operation), calls + 1);
    EXPECT_EQ(latency.callDelaysApplied() - callDelays, c.callDelays);
    EXPECT_EQ(latency.streamDelaysApplied() - streamDelays, c.streamDelays);

    if (c.callDelays == 0 && c.streamDelays == 0) {
      wrapper.failNext(c.operation, 1, ErrorCode::Unavailable);
      EXPECT_EQ(errorOf(c.call), ErrorCode::Unavailable);
      EXPECT_EQ(wrapper.callCount(c.operation), calls + 2);
      EXPECT_EQ(latency.callDelaysApplied() - callDelays, 0u);
    }
  }
}

TEST_F(InstrumentedProviderTest, CountsAndFaultsAreExactUnderConcurrentCalls) {
  constexpr int kThreads = 4;
  constexpr int kCalls = 500;
  wrapper.failNext("fileExists", 37, ErrorCode::IOError);
  std::latch start(kThreads);
  std::vector<std::future<int>> failures;
  for (int t = 0; t < kThreads; ++t) {
    failures.push_back(std::async(std::launch::async, [&] {
      start.arrive_and_wait();
      int failed = 0;
      for (int i = 0; i < kCalls; ++i) {
        wrapper.folderExists(at(u"/"));
        try {
          wrapper.fileExists(at(u"/x"));
        } catch (const fsp::Exception&) {
          ++failed;
        }
      }
      return failed;
    }));
  }
  int failed = 0;
  for (auto& f : failures) failed += f.get();
  EXPECT_EQ(failed, 37);
  EXPECT_EQ(wrapper.callCount("folderExists"), static_cast<std::uint64_t>(kThreads * kCalls));
  EXPECT_EQ(wrapper.callCount("fileExists"), static_cast<std::uint64_t>(kThreads * kCalls));
}

TEST(FaultInjector, ArmingReplacesThePreviousPlanAndZeroDisarms) {
  fsp::instrumented::FaultInjector faults;
  faults.failNext("op", 5, ErrorCode::IOError);
  faults.throwNextUnexpected("op", 1);
  auto fault = faults.take("op");
  ASSERT_TRUE(fault.has_value());
  EXPECT_TRUE(fault->unexpected);
  EXPECT_FALSE(faults.take("op").has_value());

  faults.failNext("op", 3, ErrorCode::AccessDenied);
  EXPECT_EQ(faults.take("op")->code, ErrorCode::AccessDenied);
  faults.failNext("op", 0, ErrorCode::AccessDenied);
  EXPECT_FALSE(faults.take("op").has_value());
  faults.failNext("a", 1, ErrorCode::IOError);
  faults.clear();
  EXPECT_FALSE(faults.take("a").has_value());
}

TEST(InstrumentedProviderChain, ConfigureAndShutdownReachTheInnerProviderWhichMustExist) {
  auto inner = std::make_shared<InstrumentedProvider>(std::make_shared<MemProvider>());
  InstrumentedProvider outer(inner);
  outer.configure(boost::property_tree::ptree());
  outer.shutdown();
  EXPECT_EQ(inner->callCount("configure"), 1u);
  EXPECT_EQ(inner->callCount("shutdown"), 1u);
  EXPECT_EQ(outer.callCount("configure"), 1u);
  EXPECT_THROW(InstrumentedProvider(nullptr), std::invalid_argument);
}

}  // namespace
