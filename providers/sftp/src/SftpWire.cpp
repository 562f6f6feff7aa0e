#include "SftpWire.h"

namespace foundation::storage::provider::sftp {

OutPacket::OutPacket(std::uint8_t type) {
  data_.assign(4, '\0');
  u8(type);
}

OutPacket& OutPacket::u8(std::uint8_t v) {
  data_.push_back(static_cast<char>(v));
  return *this;
}

OutPacket& OutPacket::u32(std::uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) data_.push_back(static_cast<char>(v >> shift));
  return *this;
}

OutPacket& OutPacket::u64(std::uint64_t v) {
  u32(static_cast<std::uint32_t>(v >> 32));
  return u32(static_cast<std::uint32_t>(v));
}

OutPacket& OutPacket::str(std::string_view v) {
  u32(static_cast<std::uint32_t>(v.size()));
  data_.append(v);
  return *this;
}

OutPacket& OutPacket::attrs(const SftpAttributes& a) {
  u32(a.has);
  if (a.has & fxp::kAttrSize) u64(a.size);
  if (a.has & fxp::kAttrPermissions) u32(a.permissions);
  if (a.has & fxp::kAttrAcModTime) u32(a.atime).u32(a.mtime);
  return *this;
}

const std::string& OutPacket::bytes() {
  const auto length = static_cast<std::uint32_t>(data_.size() - 4);
  for (int i = 0; i < 4; ++i) data_[i] = static_cast<char>(length >> (24 - 8 * i));
  return data_;
}

void InPacket::need(std::size_t n) const {
  if (data_.size() - pos_ < n || pos_ > data_.size()) {
    throw WireError("SFTP packet shorter than its fields");
  }
}

std::uint8_t InPacket::u8() {
  need(1);
  return static_cast<std::uint8_t>(data_[pos_++]);
}

std::uint32_t InPacket::u32() {
  need(4);
  std::uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v = (v << 8) | static_cast<std::uint8_t>(data_[pos_++]);
  return v;
}

std::uint64_t InPacket::u64() {
  const std::uint64_t high = u32();
  return (high << 32) | u32();
}

std::string InPacket::str() { return std::string(strView()); }

std::string_view InPacket::strView() {
  const std::uint32_t n = u32();
  need(n);
  const std::string_view v(data_.data() + pos_, n);
  pos_ += n;
  return v;
}

SftpAttributes InPacket::attrs() {
  SftpAttributes a;
  a.has = u32();
  if (a.has & fxp::kAttrSize) a.size = u64();
  if (a.has & fxp::kAttrUidGid) {
    u32();
    u32();
  }
  if (a.has & fxp::kAttrPermissions) a.permissions = u32();
  if (a.has & fxp::kAttrAcModTime) {
    a.atime = u32();
    a.mtime = u32();
  }
  if (a.has & fxp::kAttrExtended) {
    for (std::uint32_t n = u32(); n > 0; --n) {
      str();
      str();
    }
  }
  return a;
}

}  // namespace foundation::storage::provider::sftp
