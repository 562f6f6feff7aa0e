// Streams: reading, writing, seeking, the open options, closing, and two streams on one file.
#include "ProviderContract.h"

#include <foundation/storage/provider/extensions/IWholeFileWrites.h>

namespace contract {
namespace {

using fsp::ByteStreamOpenOptions;
using fsp::ErrorCode;
using std::ios_base;

long put(fsp::ByteStream& stream, std::string_view bytes) {
  return stream.write(bytes.data(), static_cast<long>(bytes.size()));
}

std::string take(fsp::ByteStream& stream, long count) {
  std::string buffer(static_cast<std::size_t>(count), '\0');
  long n = stream.read(buffer.data(), count);
  buffer.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
  return buffer;
}

}  // namespace

TEST_P(ProviderContract, StreamReadAndSeek) {
  writeFile(u"/f", "hello world");
  auto stream = at(u"/f").openReadOnlyStream();
  ASSERT_TRUE(stream);
  EXPECT_EQ("hello", take(*stream, 5));
  EXPECT_EQ(6, stream->seek(1, ios_base::cur));
  EXPECT_EQ("world", take(*stream, 100)) << "a read past the end returns what is left";
  char byte = 0;
  EXPECT_EQ(-1, stream->read(&byte, 1)) << "read returns -1 at the end";
  EXPECT_EQ(-1, stream->read(&byte, 1)) << "and keeps doing so";
  EXPECT_EQ(6, stream->seek(-5, ios_base::end));
  EXPECT_EQ("wo", take(*stream, 2));
  EXPECT_EQ(0, stream->seek(0, ios_base::beg));
  EXPECT_EQ("hello world", readAll(*stream));
  EXPECT_EQ(11, stream->seek(0, ios_base::cur));
  stream->close();
}

TEST_P(ProviderContract, StreamWriteSeekAndZeroFill) {
  auto stream = at(u"/f").openStream(ByteStreamOpenOptions::overwrite());
  ASSERT_TRUE(stream);
  EXPECT_EQ(3, put(*stream, "abc"));
  EXPECT_EQ(1, stream->seek(1, ios_base::beg));
  EXPECT_EQ(1, put(*stream, "B"));
  EXPECT_EQ(10, stream->seek(10, ios_base::beg)) << "seeking past the end is allowed";
  EXPECT_EQ(1, put(*stream, "Z"));
  EXPECT_EQ(0, stream->seek(0, ios_base::beg));
  EXPECT_EQ(std::string("aBc\0\0\0\0\0\0\0Z", 11), readAll(*stream));
  stream->close();

  EXPECT_EQ(std::string("aBc\0\0\0\0\0\0\0Z", 11), readFile(at(u"/f")));
  EXPECT_EQ(11u, at(u"/f").getFileAttributes().getSize().value_or(0));

  // A large body in several writes arrives whole.
  const std::string big = patternBytes(1024 * 1024 + 13);
  stream = at(u"/big").openStream(ByteStreamOpenOptions::overwrite());
  for (std::size_t done = 0; done < big.size(); done += 100000) {
    put(*stream, std::string_view(big).substr(done, 100000));
  }
  stream->close();
  EXPECT_EQ(big, readFile(at(u"/big")));
}

TEST_P(ProviderContract, StreamOpenOptions) {
  writeFile(u"/f", "abcdef");

  auto keep = at(u"/f").openStream(ByteStreamOpenOptions::readWrite());
  put(*keep, "XY");
  keep->close();
  EXPECT_EQ("XYcdef", readFile(at(u"/f"))) << "without truncate the rest of the body stays";

  auto append = at(u"/f").openStream(ByteStreamOpenOptions::appendTo());
  append->seek(0, ios_base::beg);
  put(*append, "gh");
  EXPECT_EQ(8, append->seek(0, ios_base::cur)) << "an append leaves the position at the end";
  append->close();
  EXPECT_EQ("XYcdefgh", readFile(at(u"/f"))) << "append writes at the end wherever the position";

  auto keepCreate = at(u"/f").openStream(ByteStreamOpenOptions::readWriteCreate());
  EXPECT_EQ("XYcdefgh", readAll(*keepCreate)) << "create keeps an existing body";
  keepCreate->close();

  auto truncate = at(u"/f").openStream(ByteStreamOpenOptions::overwrite());
  truncate->close();
  EXPECT_EQ("", readFile(at(u"/f")));
  EXPECT_EQ(0u, at(u"/f").getFileAttributes().getSize().value_or(99));

  auto created = at(u"/new").openStream(ByteStreamOpenOptions::readWriteCreate());
  EXPECT_TRUE(at(u"/new").fileExists()) << "create makes the file on opening";
  created->close();
  EXPECT_EQ("", readFile(at(u"/new")));

  auto appended = at(u"/log").openStream(ByteStreamOpenOptions::appendTo());
  put(*appended, "one");
  appended->close();
  EXPECT_EQ("one", readFile(at(u"/log")));
}

TEST_P(ProviderContract, StreamOpenRefusals) {
  at(u"/dir").createFolder();
  writeFile(u"/file", "x");

  expectError(ErrorCode::NotFound, loc(u"/none"), [&] { at(u"/none").openReadOnlyStream(); });
  expectError(ErrorCode::NotFound, loc(u"/dir"), [&] { at(u"/dir").openReadOnlyStream(); });
  expectError(ErrorCode::NotFound, loc(u"/none"),
              [&] { at(u"/none").openStream(ByteStreamOpenOptions::readWrite()); });
  EXPECT_FALSE(at(u"/none").fileExists()) << "without create nothing is created";
  expectError(ErrorCode::NotFound, loc(u"/missing"),
              [&] { at(u"/missing/f").openStream(ByteStreamOpenOptions::overwrite()); });
  expectError(ErrorCode::NotFound, loc(u"/missing"),
              [&] { at(u"/missing/f").openStream(ByteStreamOpenOptions::appendTo()); });
  EXPECT_FALSE(at(u"/missing").folderExists());
}

TEST_P(ProviderContract, StreamOperationsAfterCloseFail) {
  writeFile(u"/f", "data");
  auto stream = at(u"/f").openStream(ByteStreamOpenOptions::readWrite());
  stream->close();
  if (!underTest().strictStreams()) {
    stream->close();
    EXPECT_EQ("data", readFile(at(u"/f"))) << "a second close changes nothing";
    return;
  }
  char buffer[4];
  const auto refused = ErrorCode::OperationRefused;
  expectStreamFailure<fsp::ByteStreamReadFailure>(refused, [&] { stream->read(buffer, 4); });
  expectStreamFailure<fsp::ByteStreamWriteFailure>(refused, [&] { stream->write("zz", 2); });
  expectStreamFailure<fsp::ByteStreamSeekFailure>(refused, [&] { stream->seek(0, ios_base::beg); });
  expectStreamFailure<fsp::ByteStreamCloseFailure>(refused, [&] { stream->close(); });
  EXPECT_EQ("data", readFile(at(u"/f"))) << "a failed write must not reach the file";
}

TEST_P(ProviderContract, StreamNegativeSeekFails) {
  writeFile(u"/f", "data");
  auto stream = at(u"/f").openStream(ByteStreamOpenOptions::readWrite());
  const auto refused = [&](long offset, std::ios_base::seekdir direction) {
    if (underTest().strictStreams()) {
      expectStreamFailure<fsp::ByteStreamSeekFailure>(ErrorCode::OperationRefused,
                                                      [&] { stream->seek(offset, direction); });
    } else {
      EXPECT_EQ(-1, stream->seek(offset, direction));
    }
  };
  refused(-1, ios_base::beg);
  EXPECT_EQ(2, stream->seek(2, ios_base::beg));
  refused(-3, ios_base::cur);
  refused(-5, ios_base::end);
  EXPECT_EQ("ta", readAll(*stream)) << "a refused seek leaves the position where it was";
  stream->close();
}

// A stream holds what it needs by shared ownership: it may be used after every other handle on
// its provider, and what backs the provider, is gone.
TEST_P(ProviderContract, StreamOutlivesItsProvider) {
  auto stream = at(u"/f").openStream(ByteStreamOpenOptions::overwrite());
  dropProvider();
  EXPECT_EQ(4, put(*stream, "late"));
  EXPECT_EQ(0, stream->seek(0, ios_base::beg));
  EXPECT_EQ("late", readAll(*stream));
  stream->close();
}

TEST_P(ProviderContract, TwoStreamsOnOneFileSeeEachOther) {
  writeFile(u"/f", "0123456789");
  auto writer = at(u"/f").openStream(ByteStreamOpenOptions::readWrite());
  auto reader = at(u"/f").openReadOnlyStream();
  ASSERT_TRUE(writer && reader);

  EXPECT_EQ("01", take(*reader, 2));
  writer->seek(2, ios_base::beg);
  put(*writer, "AB");
  EXPECT_EQ("AB", take(*reader, 2)) << "bytes written by one stream are visible to the other";

  writer->seek(0, ios_base::end);
  put(*writer, "tail");
  reader->seek(10, ios_base::beg);
  EXPECT_EQ("tail", readAll(*reader)) << "growth by one stream is visible to the other";

  writer->close();
  reader->close();
  EXPECT_EQ("01AB456789tail", readFile(at(u"/f")));
}

// Offered by stores a network away (and by the local folder, for hosts that count calls).
TEST_P(ProviderContract, WholeFileWritesReplaceContentAndStamp) {
  const auto* whole = dynamic_cast<const fsp::extensions::IWholeFileWrites*>(&provider());
  if (whole == nullptr) GTEST_SKIP() << "the provider offers no whole-file writes";
  at(u"/dir").createFolder();
  writeFile(u"/long", "a much longer body than the next one");
  const auto when =
      toSeconds(boost::posix_time::second_clock::universal_time()) - boost::posix_time::hours(30);
  struct Case {
    std::u16string path;
    std::string bytes;
  };
  for (const auto& c : std::vector<Case>{
           {u"/new", patternBytes(200000)}, {u"/long", "short"}, {u"/dir/empty", ""}}) {
    whole->writeWholeFile(loc(c.path), c.bytes, when);
    EXPECT_EQ(c.bytes, readFile(at(c.path)));
    const auto attributes = at(c.path).getFileAttributes();
    EXPECT_EQ(c.bytes.size(), attributes.getSize().value_or(0));
    EXPECT_EQ(when, attributes.getLastModified());
  }
  expectError(ErrorCode::NotFound, std::nullopt,
              [&] { whole->writeWholeFile(loc(u"/missing/f"), "x", when); });
  expectError(ErrorCode::NotFound, std::nullopt,
              [&] { whole->writeWholeFile(loc(u"/dir"), "x", when); });
  EXPECT_TRUE(at(u"/dir").folderExists());
}

}  // namespace contract
