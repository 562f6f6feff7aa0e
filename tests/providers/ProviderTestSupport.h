// Helpers shared by every test binary: a temporary directory per test, whole files and streams
// read and written, what a refused call threw (its code, location or text), and a collector of
// change events that tests wait on with a bounded condition-variable wait.
#pragma once

#include <foundation/storage/provider/ByteStream.h>
#include <foundation/storage/provider/EventPublisher.h>
#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/StorageItem.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace foundation::storage::provider::test {

namespace fs = std::filesystem;

// A fresh directory under the system's temporary directory, removed with its contents. Tests
// clear write bits; they are given back first, so that removal works when not run as root.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (fs::temp_directory_path() / "provider-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    for (auto it = fs::recursive_directory_iterator(path_, ignored);
         it != fs::recursive_directory_iterator(); it.increment(ignored)) {
      if (!it->is_symlink(ignored)) {
        fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
      }
    }
    fs::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

inline void writeText(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

inline std::string readText(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void writeAll(ByteStream& stream, std::string_view bytes) {
  ASSERT_EQ(stream.write(bytes.data(), static_cast<long>(bytes.size())),
            static_cast<long>(bytes.size()));
}

// What is left to read from `stream`. The end is reported as -1: a 0 there would make every
// read loop spin forever.
inline std::string readAll(ByteStream& stream) {
  std::string out;
  std::vector<char> buffer(64 * 1024);
  for (long n; (n = stream.read(buffer.data(), static_cast<long>(buffer.size()))) >= 0;) {
    if (n == 0) {
      ADD_FAILURE() << "read returned 0 instead of -1 at the end";
      break;
    }
    out.append(buffer.data(), static_cast<std::size_t>(n));
  }
  return out;
}

// Creates or replaces the file with `bytes` through a stream.
inline void writeFile(const StorageItem& item, std::string_view bytes) {
  auto stream = item.openStream(ByteStreamOpenOptions::overwrite());
  ASSERT_TRUE(stream);
  writeAll(*stream, bytes);
  stream->close();
}

// The whole content of the file, read through a read-only stream.
inline std::string readFile(const StorageItem& item) {
  auto stream = item.openReadOnlyStream();
  if (!stream) {
    ADD_FAILURE() << "openReadOnlyStream returned no stream";
    return {};
  }
  std::string content = readAll(*stream);
  stream->close();
  return content;
}

struct SeenEvent {
  events::Kind kind;
  std::u16string path;
  std::u16string other;
  events::EntryType type;
  std::thread::id thread;  // that delivered it
};

class EventLog {
 public:
  EventPublisher publisher() {
    return [this](events::Kind kind, const StorageIRI& location, const StorageIRI& other,
                  events::EntryType type, const boost::property_tree::ptree&) {
      std::lock_guard lock(mutex_);
      events_.push_back(
          {kind, location.getPath(), other.getPath(), type, std::this_thread::get_id()});
      changed_.notify_all();
    };
  }
  // Waits (at most 20 s, so a lost event fails instead of hanging) for a matching event.
  bool waitFor(events::Kind kind, const std::u16string& path) {
    return waitUntil([&](const SeenEvent& e) { return e.kind == kind && e.path == path; });
  }
  bool waitUntil(const std::function<bool(const SeenEvent&)>& matches) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] {
      for (const auto& e : events_) {
        if (matches(e)) return true;
      }
      return false;
    });
  }
  bool waitForCount(std::size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20),
                             [&] { return events_.size() >= count; });
  }
  std::vector<SeenEvent> snapshot() const {
    std::lock_guard lock(mutex_);
    return events_;
  }
  std::size_t count() const { return snapshot().size(); }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<SeenEvent> events_;
};

// Runs `call` and returns the exception of type E that it throws; fails the test and returns
// nothing when it throws none. (Anything else it throws fails the test where GoogleTest
// catches it.)
template <class E, class Call>
std::optional<E> thrown(Call&& call) {
  try {
    call();
  } catch (const E& e) {
    return e;
  }
  ADD_FAILURE() << "nothing was thrown";
  return std::nullopt;
}

// The code of the E (a provider Exception or a ByteStream failure) that `call` throws.
template <class E = Exception, class Call>
ErrorCode errorOf(Call&& call) {
  const auto e = thrown<E>(std::forward<Call>(call));
  return e ? e->getErrorCode() : ErrorCode::Interrupted;  // a value no test expects
}

// The code and location of the provider Exception that `call` throws.
template <class Call>
std::pair<ErrorCode, StorageIRI> refusalOf(Call&& call) {
  const auto e = thrown<Exception>(std::forward<Call>(call));
  return e ? std::pair(e->getErrorCode(), e->getLocation())
           : std::pair(ErrorCode::Interrupted, StorageIRI());
}

// The text of the E that `call` throws.
template <class E, class Call>
std::string whatOf(Call&& call) {
  const auto e = thrown<E>(std::forward<Call>(call));
  return e ? e->what() : "";
}

}  // namespace foundation::storage::provider::test
