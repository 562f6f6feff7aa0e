#include "MountOptions.h"

#include <foundation/crypto/Digest.h>

#include <unistd.h>
#include <boost/program_options.hpp>

#include <array>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <sstream>

namespace storage::mount {

namespace po = boost::program_options;

namespace {

// The command's own bound on queued work, about the MiB of written data that may wait for the
// store before a writer is held back. Queued writes refer to their bytes in the cached bodies
// on disk, so the bound is not memory: it is how far programs may write ahead of the store at
// local speed. At 64 MiB a large file was written at the replay's pace (a 1 GiB fio write
// 263-309 MiB/s against 388-634 at 1 GiB, the folder itself 346-592). Without the content
// cache the queued writes hold their bytes in memory, so the bound stays small there.
constexpr const char* kDefaultMaxQueueWeight = "1024";
constexpr const char* kDefaultMaxQueueWeightInMemory = "64";
constexpr const char* kDefaultReplayWorkers = "8";
constexpr const char* kDefaultAbsorbWindowMs = "500";

enum class KeyKind { Text, Number, Flag };

struct OverlayKey {
  const char* option;
  const char* key;
  KeyKind kind;
  const char* help;
};

constexpr std::array<OverlayKey, 11> kOverlayKeys{{
    {"cache-root", "overlay.cacheRoot", KeyKind::Text,
     "content cache directory (default: a fresh one in the temporary directory)"},
    {"max-queue-weight", "overlay.maxQueueWeight", KeyKind::Number,
     "write-behind bound, about MiB of queued data (default 1024, 64 without the content "
     "cache; 0 = unbounded)"},
    {"min-queue-item-weight", "overlay.minQueueItemWeight", KeyKind::Number,
     "weight of each queued change"},
    {"persist-content-cache", "overlay.persistContentCache", KeyKind::Flag,
     "keep cached bodies after unmounting"},
    {"max-read-payload-size", "overlay.maxReadPayloadSize", KeyKind::Number,
     "largest read request sent to the store, bytes"},
    {"max-write-payload-size", "overlay.maxWritePayloadSize", KeyKind::Number,
     "largest write request sent to the store, bytes"},
    {"replay-workers", "overlay.replayWorkers", KeyKind::Number,
     "changes to unrelated paths replayed on the store at once (default 8; 1: strictly in "
     "order)"},
    {"absorb-window-ms", "overlay.absorbWindowMs", KeyKind::Number,
     "how long a change waits before its replay, so that a later one can make it moot (a file "
     "written under a temporary name and renamed); flushes and fsync do not wait (default 500)"},
    {"synchronous", "overlay.synchronous", KeyKind::Flag,
     "replay changes on the store before each call returns"},
    {"disable-content-cache", "overlay.disableContentCache", KeyKind::Flag,
     "keep no file bodies on the local disk"},
    {"backslash-to-forward-slash", "overlay.backslashToForwardSlash", KeyKind::Flag,
     "read backslashes in names as separators"},
}};

po::options_description describeOptions() {
  po::options_description general("Options");
  general.add_options()("help,h", "show this help")(
      "option,o", po::value<std::vector<std::string>>()->composing(),
      "FUSE mount options, comma separated (repeatable), e.g. -o allow_other")(
      "foreground,f", "stay in the foreground (messages and the unmount report on stderr)")(
      "debug,d", "FUSE debug output (implies -f)")(
      "pass-through", "mount the store without the overlay: every call goes to the store")(
      "identity", po::value<std::string>(), "sftp: the private key file (default: the SSH agent)")(
      "known-hosts", po::value<std::string>(),
      "sftp: the known_hosts file (default ~/.ssh/known_hosts)")(
      "accept-new-host-key", "sftp: trust and record an unknown host key")(
      // As many sessions as replay workers: a session carries one exchange at a time, and
      // with 4 the 8 workers' drain over SFTP took twice as long.
      "sftp-sessions", po::value<unsigned>()->default_value(8), "sftp: SFTP sessions at most")(
      "poll-interval", po::value<double>()->default_value(10),
      "sftp: seconds between change polls of the store")(
      "latency-ms", po::value<double>()->default_value(0),
      "simulated store latency per call and per stream call, milliseconds")(
      "log-mask", po::value<std::string>(),
      "log severities, decimal or 0x hex (default: FOUNDATION_LOG_MASK, else 0x210)")(
      "stats-interval", po::value<unsigned>()->default_value(0),
      "print queue statistics every N seconds (0: only on SIGUSR1)")(
      "max-threads", po::value<unsigned>()->default_value(10), "most FUSE worker threads")(
      "read-ahead-kb", po::value<unsigned>()->default_value(1024),
      "the kernel's read-ahead for the mount, KiB (needs root; 0: the kernel's default)")(
      "no-journal",
      "keep queued changes only in memory (a crash loses what has not reached the store) "
      "and the content cache in a fresh temporary folder")(
      "fsync", po::value<std::string>()->default_value("journal"),
      "journal: fsync returns once the file's changes are durable in the local journal; "
      "store: once the store holds every change")(
      "act-on-echoes",
      "act on the store's reports of the overlay's own changes, as the overlay does unless "
      "told otherwise (they are ignored by default; for comparison)")(
      "bundle", po::value<std::string>()->default_value(CACHEMOUNT_BUNDLE_PATH),
      "the overlay bundle library to load");
  po::options_description overlay("Overlay configuration (the host's \"overlay.\" keys)");
  for (const auto& key : kOverlayKeys) {
    if (key.kind == KeyKind::Flag) {
      overlay.add_options()(key.option, key.help);
    } else if (key.kind == KeyKind::Number) {
      overlay.add_options()(key.option, po::value<double>(), key.help);
    } else {
      overlay.add_options()(key.option, po::value<std::string>(), key.help);
    }
  }
  general.add(overlay);
  return general;
}

std::string numberText(double value) {
  std::ostringstream text;
  text.precision(17);
  text << value;
  return text.str();
}

boost::property_tree::ptree overlayConfigFrom(const po::variables_map& vm) {
  boost::property_tree::ptree config;
  config.put("overlay.maxQueueWeight", vm.count("disable-content-cache") != 0
                                           ? kDefaultMaxQueueWeightInMemory
                                           : kDefaultMaxQueueWeight);
  // A remote store takes several calls at once; the library's default is the strict order.
  config.put("overlay.replayWorkers", kDefaultReplayWorkers);
  // Work that later changes undo (a file created and removed before its replay) never
  // reaches the store; the library's default replays every change.
  config.put("overlay.absorbChanges", "true");
  // Long enough for a program's temporary file to be renamed or removed before its creation
  // reaches the store, short against the time another machine takes to look.
  config.put("overlay.absorbWindowMs", kDefaultAbsorbWindowMs);
  // The mount's own folder store reports every change the replay makes; acting on those
  // reports relists folders the overlay already knows, while programs wait.
  config.put("overlay.suppressEchoes", vm.count("act-on-echoes") != 0 ? "false" : "true");
  // A store that goes away (a server restarting, a lost connection) holds the replay up until
  // it answers again, however long that takes; the library's default gives a change up after
  // three attempts. An unmount meanwhile waits for the store; what a killed process had
  // pending stays in the journal.
  config.put("overlay.retryUnavailableMs", "-1");
  for (const auto& key : kOverlayKeys) {
    if (vm.count(key.option) == 0) continue;
    if (key.kind == KeyKind::Flag) {
      config.put(key.key, "true");
    } else if (key.kind == KeyKind::Number) {
      const double value = vm[key.option].as<double>();
      if (!(value >= 0) || !std::isfinite(value)) {
        throw UsageError(std::string("--") + key.option + " must be a number >= 0");
      }
      config.put(key.key, numberText(value));
    } else {
      config.put(key.key, std::filesystem::absolute(vm[key.option].as<std::string>()).string());
    }
  }
  return config;
}

std::string existingDirectory(const std::string& path, const char* what) {
  std::error_code error;
  if (!std::filesystem::is_directory(path, error)) {
    throw UsageError(std::string(what) + " is not a directory: " + path);
  }
  return std::filesystem::canonical(path).string();
}

unsigned parseLogMask(const std::string& text) {
  try {
    std::size_t used = 0;
    const unsigned long mask = std::stoul(text, &used, 0);
    if (used == text.size() && mask <= 0xffffffffUL) return static_cast<unsigned>(mask);
  } catch (const std::logic_error&) {
  }
  throw UsageError("--log-mask is not a number: " + text);
}

void readStore(const std::string& store, MountOptions& options) {
  if (store.rfind("sftp://", 0) == 0) {
    options.storeKind = MountOptions::StoreKind::Sftp;
    try {
      options.sftp = foundation::storage::provider::sftp::SftpProvider::parseAddress(
          store, foundation::storage::provider::sftp::SftpProvider::Options{});
    } catch (const std::exception& e) {
      throw UsageError(e.what());
    }
    options.storeDirectory = store;  // shown as the store's name
    return;
  }
  if (store == "mem:" || store == "mem") {
    options.storeKind = MountOptions::StoreKind::Mem;
    return;
  }
  const std::string directory = store.rfind("file:", 0) == 0 ? store.substr(5) : store;
  options.storeDirectory = existingDirectory(directory, "the store");
}

void readJournalOptions(const po::variables_map& vm, MountOptions& options) {
  const auto fsync = vm["fsync"].as<std::string>();
  if (fsync != "journal" && fsync != "store") throw UsageError("--fsync must be journal or store");
  options.fsyncToStore = fsync == "store";
  // The journal refers to bytes in the cached bodies: without a content cache there are none.
  options.journal = !options.passThrough && options.storeKind != MountOptions::StoreKind::Mem &&
                    vm.count("no-journal") == 0 && vm.count("disable-content-cache") == 0;
  if (!options.journal) return;
  auto& config = options.overlayConfig;
  if (!config.get_optional<std::string>("overlay.cacheRoot")) {
    // Made by the overlay when it opens its journal, not here: parsing has no side effects.
    config.put("overlay.cacheRoot", defaultCacheRoot(options));
    options.ownsCacheRoot = vm.count("persist-content-cache") == 0;
  }
  config.put("overlay.persistContentCache", "true");
  config.put("overlay.journal", "true");
}

MountOptions optionsFrom(const po::variables_map& vm) {
  MountOptions options;
  readStore(vm["store"].as<std::string>(), options);
  options.mountpoint = existingDirectory(vm["mountpoint"].as<std::string>(), "the mountpoint");
  const double latencyMs = vm["latency-ms"].as<double>();
  if (!(latencyMs >= 0 && latencyMs <= 60000)) throw UsageError("--latency-ms must be in 0..60000");
  options.latency = std::chrono::microseconds(static_cast<long long>(latencyMs * 1000));
  options.overlayConfig = overlayConfigFrom(vm);
  if (vm.count("option")) options.fuseOptions = vm["option"].as<std::vector<std::string>>();
  options.debug = vm.count("debug") != 0;
  options.foreground = options.debug || vm.count("foreground") != 0;
  options.passThrough = vm.count("pass-through") != 0;
  if (vm.count("log-mask")) options.logMask = parseLogMask(vm["log-mask"].as<std::string>());
  options.statsInterval = vm["stats-interval"].as<unsigned>();
  options.maxThreads = vm["max-threads"].as<unsigned>();
  if (options.maxThreads == 0) throw UsageError("--max-threads must be at least 1");
  options.readAheadKiB = vm["read-ahead-kb"].as<unsigned>();
  if (options.readAheadKiB > 65536) throw UsageError("--read-ahead-kb must be in 0..65536");
  options.bundlePath = vm["bundle"].as<std::string>();
  if (vm.count("identity")) options.sftp.identityFile = vm["identity"].as<std::string>();
  if (vm.count("known-hosts")) options.sftp.knownHostsFile = vm["known-hosts"].as<std::string>();
  options.sftp.acceptNewHostKey = vm.count("accept-new-host-key") != 0;
  options.sftp.sessions = vm["sftp-sessions"].as<unsigned>();
  if (options.sftp.sessions < 1 || options.sftp.sessions > 64) {
    throw UsageError("--sftp-sessions must be in 1..64");
  }
  const double poll = vm["poll-interval"].as<double>();
  if (!(poll >= 0.1 && poll <= 86400)) throw UsageError("--poll-interval must be in 0.1..86400");
  options.sftp.pollIntervalMs = static_cast<long>(poll * 1000);
  readJournalOptions(vm, options);
  return options;
}

}  // namespace

std::string defaultCacheRoot(const MountOptions& options) {
  std::filesystem::path base;
  const char* xdg = std::getenv("XDG_CACHE_HOME");
  const char* home = std::getenv("HOME");
  if (xdg != nullptr && *xdg != '\0') {
    base = xdg;
  } else if (::geteuid() == 0 || home == nullptr || *home == '\0') {
    base = "/var/cache";
  } else {
    base = std::filesystem::path(home) / ".cache";
  }
  // Readable (the store's last path part) and unique (a digest of the whole address).
  const std::string address = options.storeDirectory;
  std::string tail = std::filesystem::path(address).filename().string();
  for (auto& c : tail) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '.') c = '_';
  }
  if (tail.empty()) tail = "root";
  const auto digest = foundation::crypto::blake2b512Base64Url(address).substr(0, 16);
  return (base / "cachemount" / (tail + "-" + digest)).string();
}

std::optional<MountOptions> parseMountOptions(int argc, const char* const* argv,
                                              std::ostream& out) {
  const auto visible = describeOptions();
  po::options_description all;
  all.add(visible).add_options()("store", po::value<std::string>())("mountpoint",
                                                                    po::value<std::string>());
  po::positional_options_description positional;
  positional.add("store", 1).add("mountpoint", 1);
  po::variables_map vm;
  try {
    po::store(po::command_line_parser(argc, argv).options(all).positional(positional).run(), vm);
    po::notify(vm);
  } catch (const po::error& e) {
    throw UsageError(e.what());
  }
  if (vm.count("help")) {
    out << "Usage: cachemount [options] STORE MOUNTPOINT\n"
        << "  STORE is a local directory (or file:DIR), mem: for an in-memory store, or\n"
        << "  sftp://[user@]host[:port]/path for a folder on an SFTP server.\n"
        << "  Unmount with Ctrl-C, SIGTERM or `umount MOUNTPOINT`: queued changes reach the\n"
        << "  store before the command exits. SIGUSR1 prints the queue statistics.\n\n"
        << visible << "\n";
    return std::nullopt;
  }
  if (!vm.count("store") || !vm.count("mountpoint")) {
    throw UsageError("a STORE and a MOUNTPOINT are needed (see --help)");
  }
  return optionsFrom(vm);
}

}  // namespace storage::mount
