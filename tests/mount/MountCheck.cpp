// mount_check: POSIX checks run against a mounted store by the mount tests.
//   mount_check random FILE MODEL SEED OPERATIONS
//       random writes, reads, truncations, fsyncs and reopenings of FILE, every read compared
//       with a model kept in memory; the model is written to MODEL (outside the mount) so the
//       test can compare the store's copy after unmounting.
//   mount_check errnos DIR
//       the errno a POSIX program gets for each kind of refusal, in an empty folder DIR.
//   mount_check posix DIR
//       what a local file system does for files removed while open, change times, link
//       counts and impossible sizes, in an empty folder DIR.
// Exit status: 0 when everything matched, 1 on the first difference (printed), 2 for usage.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <random>
#include <string>
#include <vector>

namespace {

[[noreturn]] void fail(const std::string& what) {
  std::cerr << "mount_check: " << what << " (" << std::strerror(errno) << ")\n";
  std::exit(1);
}

class RandomFileCheck {
 public:
  RandomFileCheck(std::string path, unsigned seed) : path_(std::move(path)), random_(seed) {
    reopen(O_CREAT | O_TRUNC);
  }
  ~RandomFileCheck() { ::close(fd_); }

  void step(int index) {
    const int kind = pick(0, 99);
    if (kind < 45) {
      write(index);
    } else if (kind < 85) {
      read(index);
    } else if (kind < 93) {
      truncate();
    } else if (kind < 96) {
      if (::fsync(fd_) != 0) fail("fsync");
    } else {
      reopen(0);
    }
  }
  const std::string& model() const { return model_; }

 private:
  int pick(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }
  std::size_t offset() { return static_cast<std::size_t>(pick(0, kMaxSize)); }
  std::size_t length() {
    return static_cast<std::size_t>(pick(1, pick(0, 3) == 0 ? 300000 : 5000));
  }

  void reopen(int flags) {
    if (fd_ >= 0 && ::close(fd_) != 0) fail("close");
    fd_ = ::open(path_.c_str(), O_RDWR | flags, 0644);
    if (fd_ < 0) fail("open " + path_);
  }
  void write(int index) {
    const std::size_t at = offset();
    std::string data(length(), '\0');
    for (auto& c : data) c = static_cast<char>('a' + (index + pick(0, 25)) % 26);
    if (::pwrite(fd_, data.data(), data.size(), static_cast<off_t>(at)) !=
        static_cast<ssize_t>(data.size())) {
      fail("pwrite");
    }
    if (model_.size() < at + data.size()) model_.resize(at + data.size(), '\0');
    model_.replace(at, data.size(), data);
  }
  void read(int index) {
    const std::size_t at = offset();
    std::string got(length(), '\0');
    const ssize_t n = ::pread(fd_, got.data(), got.size(), static_cast<off_t>(at));
    if (n < 0) fail("pread");
    const std::string want = at >= model_.size() ? std::string() : model_.substr(at, got.size());
    if (std::string(got.data(), static_cast<std::size_t>(n)) != want) {
      std::cerr << "mount_check: operation " << index << ": read of " << got.size() << " at " << at
                << " gave " << n << " bytes that differ from the model's " << want.size() << "\n";
      std::exit(1);
    }
  }
  void truncate() {
    const std::size_t size = offset();
    if (::ftruncate(fd_, static_cast<off_t>(size)) != 0) fail("ftruncate");
    model_.resize(size, '\0');
  }

  static constexpr int kMaxSize = 2 * 1024 * 1024;
  std::string path_;
  std::mt19937 random_;
  std::string model_;
  int fd_ = -1;
};

int runRandom(const std::string& file, const std::string& modelPath, unsigned seed, int count) {
  RandomFileCheck check(file, seed);
  for (int i = 0; i < count; ++i) check.step(i);
  std::ofstream(modelPath, std::ios::binary) << check.model();
  std::cout << "random: " << count << " operations matched the model; " << check.model().size()
            << " bytes\n";
  return 0;
}

void makeFile(const std::string& path, const char* text) { std::ofstream(path) << text; }

struct ErrnoCase {
  const char* name;
  std::function<int()> call;  // the call's result: -1 with errno set on failure
  int expected;               // 0: the call must succeed
};

int runErrnos(const std::string& dir) {
  const std::string a = dir + "/a", b = dir + "/b", sub = dir + "/sub", missing = dir + "/none";
  makeFile(a, "a");
  makeFile(b, "b");
  if (::mkdir(sub.c_str(), 0755) != 0) fail("mkdir " + sub);
  makeFile(sub + "/inside", "x");
  const std::vector<ErrnoCase> cases = {
      {"open O_EXCL on an existing file",
       [&] { return ::open(a.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0644); }, EEXIST},
      {"open a missing file", [&] { return ::open(missing.c_str(), O_RDONLY); }, ENOENT},
      {"create below a missing folder",
       [&] { return ::open((missing + "/x").c_str(), O_CREAT | O_WRONLY, 0644); }, ENOENT},
      {"mkdir over an existing folder", [&] { return ::mkdir(sub.c_str(), 0755); }, EEXIST},
      {"rmdir a folder with children", [&] { return ::rmdir(sub.c_str()); }, ENOTEMPTY},
      {"unlink a missing file", [&] { return ::unlink(missing.c_str()); }, ENOENT},
      {"rename a missing file", [&] { return ::rename(missing.c_str(), b.c_str()); }, ENOENT},
      {"RENAME_NOREPLACE onto a file",
       [&] { return ::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_NOREPLACE); },
       EEXIST},
      {"RENAME_EXCHANGE",
       [&] { return ::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE); },
       EINVAL},
      {"a name of 256 bytes",
       [&] {
         return ::open((dir + "/" + std::string(256, 'n')).c_str(), O_CREAT | O_WRONLY, 0644);
       },
       ENAMETOOLONG},
      {"setxattr", [&] { return ::setxattr(a.c_str(), "user.k", "v", 1, 0); }, EOPNOTSUPP},
      {"getxattr of a name the file lacks",
       [&] {
         char v[8];
         return static_cast<int>(::getxattr(a.c_str(), "user.none", v, sizeof v));
       },
       ENODATA},
      {"listxattr of a file without any",
       [&] {
         char v[8];
         return static_cast<int>(::listxattr(a.c_str(), v, sizeof v));
       },
       0},
      {"make a file read-only", [&] { return ::chmod(b.c_str(), 0444); }, 0},
      {"rename onto an existing read-only file", [&] { return ::rename(a.c_str(), b.c_str()); }, 0},
      {"rmdir a file", [&] { return ::rmdir(b.c_str()); }, ENOTDIR},
  };
  int failures = 0;
  for (const auto& c : cases) {
    errno = 0;
    const int result = c.call();
    const int got = result < 0 ? errno : 0;
    if (result > 0) ::close(result);
    if (got != c.expected) {
      std::cerr << "errnos: " << c.name << ": got "
                << (result >= 0 ? "success" : std::strerror(got)) << ", expected "
                << std::strerror(c.expected) << "\n";
      ++failures;
    }
  }
  std::cout << "errnos: " << cases.size() - failures << " of " << cases.size()
            << " cases as expected\n";
  return failures == 0 ? 0 : 1;
}

// Each check returns what differs from a local file system, or nothing.
struct PosixCase {
  const char* name;
  std::function<std::string(const std::string& dir)> check;
};

std::string errnoText(const char* call) { return std::string(call) + ": " + std::strerror(errno); }

bool laterThan(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

bool nameListed(const std::string& dir, const std::string& prefix) {
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return false;
  bool found = false;
  while (const dirent* e = ::readdir(d)) found |= std::string(e->d_name).rfind(prefix, 0) == 0;
  ::closedir(d);
  return found;
}

// Works on an open descriptor whose name is gone: as a local file system does, its bytes live
// on until the last close, with a link count of 0, and the folder shows nothing of it.
std::string checkRemovedOpenFile(int fd, const std::string& dir, const std::string& expected) {
  // Past the kernel's attribute timeout (1 s), so that fstat reaches the mount.
  ::usleep(1100000);
  struct stat st {};
  if (::fstat(fd, &st) != 0) return errnoText("fstat");
  if (st.st_nlink != 0) return "link count " + std::to_string(st.st_nlink) + ", expected 0";
  if (st.st_size != static_cast<off_t>(expected.size())) return "fstat size differs";
  std::string got(expected.size(), '\0');
  if (::pread(fd, got.data(), got.size(), 0) != static_cast<ssize_t>(got.size()) || got != expected)
    return "pread gave other bytes";
  if (::pwrite(fd, "!", 1, 2) != 1) return errnoText("pwrite");
  if (::ftruncate(fd, 3) != 0) return errnoText("ftruncate");
  const timespec times[2] = {{1000000, 0}, {2000000, 0}};
  if (::futimens(fd, times) != 0) return errnoText("futimens");
  if (::fchmod(fd, 0600) != 0) return errnoText("fchmod");
  if (::fsync(fd) != 0) return errnoText("fsync");
  if (::fstat(fd, &st) != 0) return errnoText("fstat after changes");
  if (st.st_size != 3 || st.st_mtim.tv_sec != 2000000) return "ftruncate or futimens not seen";
  char back[3];
  if (::pread(fd, back, 3, 0) != 3 || back[2] != '!') return "the write is not read back";
  if (nameListed(dir, ".fuse_hidden")) return "a hidden name is listed";
  return {};
}

std::string removedWhileOpen(const std::string& dir) {
  const std::string f = dir + "/removed";
  const int fd = ::open(f.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return errnoText("open");
  std::string result;
  if (::write(fd, "hello", 5) != 5) result = errnoText("write");
  if (result.empty() && ::unlink(f.c_str()) != 0) result = errnoText("unlink");
  if (result.empty()) result = checkRemovedOpenFile(fd, dir, "hello");
  if (::close(fd) != 0 && result.empty()) result = errnoText("close");
  struct stat st {};
  if (result.empty() && ::stat(f.c_str(), &st) == 0) result = "the removed name came back";
  return result;
}

std::string replacedWhileOpen(const std::string& dir) {
  const std::string a = dir + "/old", b = dir + "/new";
  makeFile(a, "first");
  makeFile(b, "second");
  const int fd = ::open(a.c_str(), O_RDWR);
  if (fd < 0) return errnoText("open");
  std::string result;
  if (::rename(b.c_str(), a.c_str()) != 0) result = errnoText("rename");
  if (result.empty()) result = checkRemovedOpenFile(fd, dir, "first");
  ::close(fd);
  std::ifstream in(a);
  const std::string now((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (result.empty() && now != "second") result = "the new file holds \"" + now + "\"";
  return result;
}

std::string changeTimeMoves(const std::string& path, const std::function<int()>& change) {
  struct stat before {
  }, after{};
  if (::stat(path.c_str(), &before) != 0) return errnoText("stat");
  ::usleep(20000);
  if (change() != 0) return errnoText("change");
  if (::stat(path.c_str(), &after) != 0) return errnoText("stat after");
  return laterThan(after.st_ctim, before.st_ctim) ? "" : "change time did not move";
}

int runPosix(const std::string& dir) {
  const std::vector<PosixCase> cases = {
      {"a file removed while open", removedWhileOpen},
      {"a file replaced by a rename while open", replacedWhileOpen},
      {"chmod moves a folder's change time",
       [](const std::string& d) {
         const std::string sub = d + "/modes";
         ::mkdir(sub.c_str(), 0755);
         return changeTimeMoves(sub, [&] { return ::chmod(sub.c_str(), 0555); });
       }},
      {"chmod moves a file's change time",
       [](const std::string& d) {
         const std::string f = d + "/mode-file";
         makeFile(f, "x");
         return changeTimeMoves(f, [&] { return ::chmod(f.c_str(), 0444); });
       }},
      {"a folder's link count is 1 or 2 plus its sub-folders",
       [](const std::string& d) -> std::string {
         const std::string top = d + "/links";
         for (const auto& p : {top, top + "/a", top + "/b"}) ::mkdir(p.c_str(), 0755);
         makeFile(top + "/file", "x");
         struct stat st {};
         if (::stat(top.c_str(), &st) != 0) return errnoText("stat");
         if (st.st_nlink == 1 || st.st_nlink == 4) return {};
         return "link count " + std::to_string(st.st_nlink);
       }},
      {"a size no file can have is EFBIG, and nothing is written",
       [](const std::string& d) -> std::string {
         const std::string f = d + "/huge";
         makeFile(f, "");
         const int result = ::truncate(f.c_str(), 999999999999999);
         struct stat st {};
         if (::stat(f.c_str(), &st) != 0) return errnoText("stat");
         if (result != 0 && errno != EFBIG) return errnoText("truncate");
         if (result != 0 && st.st_size != 0) return "the size changed although refused";
         return {};
       }},
  };
  int failures = 0;
  for (const auto& c : cases) {
    errno = 0;
    const std::string difference = c.check(dir);
    if (!difference.empty()) {
      std::cerr << "posix: " << c.name << ": " << difference << "\n";
      ++failures;
    }
  }
  std::cout << "posix: " << cases.size() - failures << " of " << cases.size()
            << " cases as on a local file system\n";
  return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() == 5 && args[0] == "random") {
      return runRandom(args[1], args[2], static_cast<unsigned>(std::stoul(args[3])),
                       std::stoi(args[4]));
    }
    if (args.size() == 2 && args[0] == "errnos") return runErrnos(args[1]);
    if (args.size() == 2 && args[0] == "posix") return runPosix(args[1]);
    std::cerr << "usage: mount_check random FILE MODEL SEED OPERATIONS | errnos DIR | posix DIR\n";
    return 2;
  } catch (const std::exception& e) {
    std::cerr << "mount_check: " << e.what() << "\n";
    return 2;
  }
}
