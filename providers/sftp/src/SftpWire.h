// SftpWire: the byte layout of SFTP version 3 packets (draft-ietf-secsh-filexfer-02, with
// OpenSSH's extensions), written and read without any SSH library, so that this provider
// decides itself how many requests are in flight and which extensions it sends.
//
// Ownership: plain values (OutPacket owns its bytes, InPacket owns the payload it reads).
// No locks; one thread uses a packet at a time. Reading past a packet's end throws
// WireError, which the session turns into a lost connection (the peer spoke nonsense).
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace foundation::storage::provider::sftp {

// Packet types and status codes of the protocol.
namespace fxp {
constexpr std::uint8_t kInit = 1, kVersion = 2, kOpen = 3, kClose = 4, kRead = 5, kWrite = 6,
                       kLstat = 7, kFstat = 8, kSetstat = 9, kFsetstat = 10, kOpendir = 11,
                       kReaddir = 12, kRemove = 13, kMkdir = 14, kRmdir = 15, kRealpath = 16,
                       kStat = 17, kRename = 18, kStatus = 101, kHandle = 102, kData = 103,
                       kName = 104, kAttrs = 105, kExtended = 200, kExtendedReply = 201;
constexpr std::uint32_t kRead_ = 0x01, kWrite_ = 0x02, kAppend = 0x04, kCreat = 0x08, kTrunc = 0x10,
                        kExcl = 0x20;
constexpr std::uint32_t kAttrSize = 0x1, kAttrUidGid = 0x2, kAttrPermissions = 0x4,
                        kAttrAcModTime = 0x8, kAttrExtended = 0x80000000u;
}  // namespace fxp

struct WireError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The attributes of one entry; `has` holds the fxp::kAttr* flags that were present.
struct SftpAttributes {
  std::uint32_t has = 0;
  std::uint64_t size = 0;
  std::uint32_t permissions = 0;
  std::uint32_t atime = 0;
  std::uint32_t mtime = 0;

  bool isFolder() const { return (permissions & 0170000) == 0040000; }
  bool isRegular() const { return (permissions & 0170000) == 0100000; }
  bool isLink() const { return (permissions & 0170000) == 0120000; }
};

class OutPacket {
 public:
  // Starts a packet of `type`; the length is filled in by bytes().
  explicit OutPacket(std::uint8_t type);
  OutPacket& u8(std::uint8_t v);
  OutPacket& u32(std::uint32_t v);
  OutPacket& u64(std::uint64_t v);
  OutPacket& str(std::string_view v);
  OutPacket& attrs(const SftpAttributes& a);
  // The finished packet, length prefix included.
  const std::string& bytes();

 private:
  std::string data_;
};

class InPacket {
 public:
  InPacket() = default;
  // `payload` is the packet without its length prefix (type byte first).
  explicit InPacket(std::string payload) : data_(std::move(payload)) {}
  std::uint8_t u8();
  std::uint32_t u32();
  std::uint64_t u64();
  std::string str();
  // The next string in place: valid while this packet lives and is not assigned to.
  std::string_view strView();
  SftpAttributes attrs();
  bool atEnd() const { return pos_ >= data_.size(); }

 private:
  void need(std::size_t n) const;
  std::string data_;
  std::size_t pos_ = 0;
};

}  // namespace foundation::storage::provider::sftp
