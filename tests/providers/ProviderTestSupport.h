// Helpers shared by every test binary: a temporary directory per test, whole files and streams
// read and written, what a refused call threw (its code, location or text), and a collector of
// change events that tests wait on with a bounded condition-variable wait.
// Threads: everything is called from the test's thread, except an EventRecorder's publisher,
// which providers call from their event threads (it takes the recorder's one mutex).
#pragma once

#include <foundation/storage/provider/ByteStream.h>
#include <foundation/storage/provider/EventPublisher.h>
#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/FolderEntryIterator.h>
#include <foundation/storage/provider/StorageItem.h>
#include <foundation/text/Unicode.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
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
    try {
      std::error_code ignored;
      for (auto it = fs::recursive_directory_iterator(path_, ignored);
           it != fs::recursive_directory_iterator(); it.increment(ignored)) {
        if (!it->is_symlink(ignored)) {
          fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
        }
      }
      fs::remove_all(path_, ignored);
    } catch (...) {
      std::fprintf(stderr, "could not remove the temporary directory %s\n", path_.c_str());
    }
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

// The names of the rows left in a listing, in the order produced.
inline std::vector<std::u16string> rowNames(IFolderEntryIterator& listing) {
  std::vector<std::u16string> names;
  for (const auto& row : collectRows(listing)) names.push_back(row.getName());
  return names;
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

// Collects the events a provider publishes, from the provider's threads, and lets a test wait
// (bounded, so that a lost event fails instead of hanging) until the events it expects have
// arrived. The publisher shares the state, so an event arriving after the recorder is gone is
// harmless.
// Locking: one mutex guards the recorded events; publishers notify under it.
class EventRecorder {
 public:
  struct Event {
    events::Kind kind;
    std::u16string path;
    std::u16string otherPath;
    events::EntryType type;
    std::thread::id thread;  // that delivered it
  };
  using Predicate = std::function<bool(const std::vector<Event>&)>;

  EventPublisher publisher() const {
    return [state = state_](events::Kind kind, const StorageIRI& location, const StorageIRI& other,
                            events::EntryType type, const boost::property_tree::ptree&) {
      std::lock_guard lock(state->mutex);
      state->events.push_back(
          {kind, location.getPath(), other.getPath(), type, std::this_thread::get_id()});
      state->changed.notify_all();
    };
  }
  // Waits until `done` holds for the events seen so far. Fails the test (naming `expectation`
  // and listing what did arrive) when it does not hold within the bound.
  bool waitFor(const Predicate& done, const std::string& expectation,
               std::chrono::seconds bound = std::chrono::seconds(20)) const {
    std::unique_lock lock(state_->mutex);
    if (state_->changed.wait_for(lock, bound, [&] { return done(state_->events); })) return true;
    ADD_FAILURE() << "no " << expectation << " within " << bound.count()
                  << " s; events seen: " << describe(state_->events);
    return false;
  }
  // Waits for one event that `matches`.
  bool waitForEvent(const std::function<bool(const Event&)>& matches,
                    const std::string& expectation) const {
    return waitFor([&](const auto& seen) { return std::ranges::any_of(seen, matches); },
                   expectation);
  }
  // Waits for one event of `kind` whose location has this path.
  bool waitForEvent(events::Kind kind, const std::u16string& path) const {
    return waitForEvent([&](const Event& e) { return e.kind == kind && e.path == path; },
                        "event of kind " + std::to_string(static_cast<unsigned>(kind)) + " for " +
                            text::toUtf8(path));
  }
  // Waits for both ends of a move of an entry of `type`: Disappeared at `from` naming `to`,
  // then Appeared at `to` naming `from`. Fails the test when either is missing or they came
  // in the other order.
  bool waitForMove(const std::u16string& from, const std::u16string& to,
                   events::EntryType type) const {
    // The position of the end of the move that is at `path` and names `other`.
    const auto at = [&](const std::vector<Event>& seen, events::Kind kind,
                        const std::u16string& path, const std::u16string& other) {
      return std::ranges::find_if(seen,
                                  [&](const Event& e) {
                                    return e.kind == kind && e.path == path &&
                                           e.otherPath == other && e.type == type;
                                  }) -
             seen.begin();
    };
    const std::string move = text::toUtf8(from) + " -> " + text::toUtf8(to);
    if (!waitFor(
            [&](const auto& e) { return at(e, events::Kind::Appeared, to, from) < std::ssize(e); },
            "the destination's end of the move " + move)) {
      return false;
    }
    const auto seen = events();
    if (at(seen, events::Kind::Disappeared, from, to) <
        at(seen, events::Kind::Appeared, to, from)) {
      return true;
    }
    ADD_FAILURE() << "no source's end before the destination's end of " << move << ": "
                  << describe(seen);
    return false;
  }
  std::vector<Event> events() const {
    std::lock_guard lock(state_->mutex);
    return state_->events;
  }
  void clear() {
    std::lock_guard lock(state_->mutex);
    state_->events.clear();
  }

  static bool contains(const std::vector<Event>& seen, events::Kind kind,
                       const std::u16string& path) {
    return std::ranges::any_of(seen,
                               [&](const Event& e) { return e.kind == kind && e.path == path; });
  }
  static std::string describe(const std::vector<Event>& seen) {
    std::ostringstream out;
    out << "[";
    for (const auto& e : seen) {
      out << " (kind " << static_cast<unsigned>(e.kind) << ", " << text::toUtf8(e.path) << " -> "
          << text::toUtf8(e.otherPath) << ", type " << static_cast<unsigned>(e.type) << ")";
    }
    out << " ]";
    return out.str();
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Event> events;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
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
