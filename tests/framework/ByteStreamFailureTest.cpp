#include <foundation/storage/provider/ByteStreamFailure.h>
#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/GenericByteStreamDevice.h>

#include <gtest/gtest.h>

#include <boost/iostreams/stream.hpp>
#include <string>

using namespace foundation::storage::provider;

// Caught as an iostream failure named after its class, as the framework's exception with its
// code, and as std::exception without ambiguity.
TEST(ByteStreamFailure, IsAnIosFailureAndAFrameworkExceptionWithItsCode) {
  try {
    throw ByteStreamSeekFailure(ErrorCode::IOError);
  } catch (const std::ios_base::failure& e) {
    EXPECT_STREQ(e.what(), "ByteStreamSeekFailure");
    EXPECT_EQ(e.code(), std::make_error_code(std::io_errc::stream));
  }
  try {
    throw ByteStreamWriteFailure(ErrorCode::QuotaExceeded);
  } catch (const ByteStreamFailure& e) {
    EXPECT_EQ(e.getErrorCode(), ErrorCode::QuotaExceeded);
    EXPECT_NE(dynamic_cast<const foundation::core::except::IInternalException*>(&e), nullptr);
    EXPECT_NE(dynamic_cast<const boost::exception*>(&e), nullptr);
  }
  EXPECT_THROW(throw ByteStreamCloseFailure(ErrorCode::IOError), std::exception);
}

TEST(ByteStreamFailure, RethrowAndCloneKeepTheMostDerivedKind) {
  const ByteStreamReadFailure original(ErrorCode::NotFound);
  const ByteStreamFailure& base = original;
  EXPECT_THROW(base.rethrow(), ByteStreamReadFailure);
  const auto copy = base.clone();
  EXPECT_THROW(copy->rethrow(), ByteStreamReadFailure);
  EXPECT_EQ(copy->getErrorCode(), ErrorCode::NotFound);
}

TEST(Exception, DescribesCodeAndLocation) {
  const Exception e(ErrorCode::NotFound, StorageIRI(u"mem", u"/a"), "gone");
  EXPECT_EQ(e.getErrorCode(), ErrorCode::NotFound);
  EXPECT_EQ(e.getLocation(), StorageIRI(u"mem", u"/a"));
  EXPECT_STREQ(e.what(), "NotFound (4): mem:/a: gone");
  EXPECT_EQ(foundation::core::except::convert_str<std::u16string>(e),
            u"NotFound (4): mem:/a: gone");
}

namespace {

// A ByteStream over a string, enough to drive the device adapter.
class StringStream : public ByteStream {
 public:
  explicit StringStream(std::string& data) : data_(data) {}
  long read(char* buffer, long count) override {
    if (position_ >= static_cast<long>(data_.size())) return -1;
    const long n = std::min<long>(count, static_cast<long>(data_.size()) - position_);
    data_.copy(buffer, n, position_);
    position_ += n;
    return n;
  }
  long write(const char* buffer, long count) override {
    data_.replace(position_, count, buffer, count);
    position_ += count;
    return count;
  }
  long seek(long offset, std::ios_base::seekdir way) override {
    position_ = (way == std::ios_base::beg   ? 0
                 : way == std::ios_base::cur ? position_
                                             : data_.size()) +
                offset;
    return position_;
  }
  void close() override { ++closes; }
  int closes = 0;

 private:
  std::string& data_;
  long position_ = 0;
};

}  // namespace

TEST(GenericByteStreamDevice, ForwardsReadWriteAndClose) {
  std::string data = "hello";
  std::unique_ptr<StringStream> owned = std::make_unique<StringStream>(data);
  auto* raw = owned.get();
  GenericByteStreamDevice<StringStream> device(owned);
  boost::iostreams::stream<GenericByteStreamDevice<StringStream>> stream(device);
  std::string word;
  stream >> word;
  EXPECT_EQ(word, "hello");
  stream.clear();
  stream.seekp(0);
  stream << "J";
  stream.flush();
  EXPECT_EQ(data, "Jello");
  stream.close();
  EXPECT_EQ(raw->closes, 1);
}
