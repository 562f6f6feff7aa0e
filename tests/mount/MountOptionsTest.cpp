// The command line of cachemount: what reaches the overlay's configuration and FUSE, and the
// clear refusal of what cannot be used.
#include "KernelReadAhead.h"
#include "MountOptions.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace storage::mount {
namespace {

std::optional<MountOptions> parse(std::vector<std::string> args) {
  args.insert(args.begin(), "cachemount");
  std::vector<const char*> argv;
  for (const auto& arg : args) argv.push_back(arg.c_str());
  std::ostringstream out;
  return parseMountOptions(static_cast<int>(argv.size()), argv.data(), out);
}

const std::string kTmp = std::filesystem::canonical(std::filesystem::temp_directory_path());

TEST(MountOptions, OverlayKeysReachTheConfiguration) {
  struct Case {
    std::vector<std::string> args;
    std::map<std::string, std::string> keys;  // "" : the key must be absent
  };
  const std::vector<Case> cases = {
      {{}, {{"overlay.maxQueueWeight", "1024"}, {"overlay.synchronous", ""}}},
      {{"--max-queue-weight", "8", "--min-queue-item-weight", "0.5"},
       {{"overlay.maxQueueWeight", "8"}, {"overlay.minQueueItemWeight", "0.5"}}},
      {{"--synchronous", "--disable-content-cache", "--persist-content-cache",
        "--backslash-to-forward-slash"},
       {{"overlay.synchronous", "true"},
        {"overlay.disableContentCache", "true"},
        {"overlay.maxQueueWeight", "64"},
        {"overlay.persistContentCache", "true"},
        {"overlay.backslashToForwardSlash", "true"}}},
      {{"--max-read-payload-size", "1048576", "--max-write-payload-size", "4096"},
       {{"overlay.maxReadPayloadSize", "1048576"}, {"overlay.maxWritePayloadSize", "4096"}}},
      {{"--cache-root", "relative/cache"},
       {{"overlay.cacheRoot", (std::filesystem::current_path() / "relative/cache").string()}}},
  };
  for (const auto& c : cases) {
    auto args = c.args;
    args.insert(args.end(), {"mem:", kTmp});
    const auto options = parse(args);
    ASSERT_TRUE(options);
    for (const auto& [key, value] : c.keys) {
      EXPECT_EQ(options->overlayConfig.get<std::string>(key, ""), value) << key;
    }
  }
}

TEST(MountOptions, StoreFuseOptionsAndModes) {
  const auto file = parse({"-o", "ro", "-o", "allow_other,max_read=65536", "-d", "--log-mask",
                           "0x3ff", "--latency-ms", "2.5", "file:" + kTmp, kTmp});
  ASSERT_TRUE(file);
  EXPECT_EQ(file->storeKind, MountOptions::StoreKind::File);
  EXPECT_EQ(file->storeDirectory, kTmp);
  EXPECT_EQ(file->fuseOptions, (std::vector<std::string>{"ro", "allow_other,max_read=65536"}));
  EXPECT_TRUE(file->debug && file->foreground);
  EXPECT_EQ(file->logMask, 0x3ffu);
  EXPECT_EQ(file->latency.count(), 2500);
  const auto plain = parse({"--pass-through", kTmp + "/.", kTmp});
  ASSERT_TRUE(plain);
  EXPECT_TRUE(plain->passThrough);
  EXPECT_FALSE(plain->foreground);
  EXPECT_EQ(plain->storeDirectory, kTmp);
  EXPECT_FALSE(parse({"--help"}));
  const auto sftp =
      parse({"--identity", "/k", "--known-hosts", "/kh", "--accept-new-host-key", "--sftp-sessions",
             "2", "--poll-interval", "0.5", "sftp://u@h:2022/srv/x", kTmp});
  ASSERT_TRUE(sftp);
  EXPECT_EQ(sftp->storeKind, MountOptions::StoreKind::Sftp);
  EXPECT_EQ(sftp->sftp.user + "@" + sftp->sftp.host + ":" + std::to_string(sftp->sftp.port) +
                sftp->sftp.path,
            "u@h:2022/srv/x");
  EXPECT_EQ(sftp->sftp.identityFile, "/k");
  EXPECT_EQ(sftp->sftp.knownHostsFile, "/kh");
  EXPECT_TRUE(sftp->sftp.acceptNewHostKey);
  EXPECT_EQ(sftp->sftp.sessions, 2u);
  EXPECT_EQ(sftp->sftp.pollIntervalMs, 500);
}

TEST(MountOptions, UnusableCommandLinesAreRefusedWithTheReason) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"mem:"}, "a STORE and a MOUNTPOINT"},
      {{"/no/such/store", kTmp}, "the store is not a directory: /no/such/store"},
      {{"mem:", "/no/such/mountpoint"}, "the mountpoint is not a directory"},
      {{"--max-queue-weight", "-1", "mem:", kTmp}, "--max-queue-weight must be a number >= 0"},
      {{"--min-queue-item-weight", "nan", "mem:", kTmp}, "must be a number >= 0"},
      {{"--latency-ms", "nan", "mem:", kTmp}, "--latency-ms must be in"},
      {{"--max-queue-weight", "lots", "mem:", kTmp}, "is invalid"},
      {{"--log-mask", "0xZZ", "mem:", kTmp}, "--log-mask is not a number"},
      {{"--latency-ms", "-1", "mem:", kTmp}, "--latency-ms must be in"},
      {{"--max-threads", "0", "mem:", kTmp}, "--max-threads must be at least 1"},
      {{"--no-such-option", "mem:", kTmp}, "unrecognised option"},
      {{"mem:", kTmp, "extra"}, "too many positional options"},
      {{"sftp://h:99999/x", kTmp}, "bad port"},
      {{"--sftp-sessions", "0", "sftp://h/x", kTmp}, "--sftp-sessions must be in"},
      {{"--poll-interval", "0", "sftp://h/x", kTmp}, "--poll-interval must be in"},
      {{"--read-ahead-kb", "65537", "mem:", kTmp}, "--read-ahead-kb must be in"},
  };
  for (const auto& [args, reason] : cases) {
    try {
      parse(args);
      ADD_FAILURE() << "accepted: " << args.front();
    } catch (const UsageError& e) {
      EXPECT_NE(std::string(e.what()).find(reason), std::string::npos) << e.what();
    }
  }
}

// The mount's device, found by its mount point in /proc/self/mountinfo.
TEST(KernelReadAhead, TheMountsDeviceComesFromItsMountinfoLine) {
  const std::string mountinfo =
      "22 1 254:0 / / rw - ext4 /dev/vda rw\n"
      "40 22 0:39 / /tmp/a\\040b rw - fuse.cachemount cachemount rw\n"
      "41 22 0:40 / /mnt rw - fuse.cachemount cachemount rw\n"
      "42 41 0:41 / /mnt rw - fuse.cachemount cachemount rw\n";
  const std::vector<std::pair<std::string, std::optional<std::string>>> cases = {
      {"/", "254:0"}, {"/tmp/a b", "0:39"}, {"/mnt", "0:41"}, {"/tmp/a", std::nullopt}};
  for (const auto& [mountpoint, device] : cases)
    EXPECT_EQ(mountedDevice(mountinfo, mountpoint), device) << mountpoint;
}

}  // namespace
}  // namespace storage::mount
