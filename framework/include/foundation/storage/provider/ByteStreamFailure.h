// The ByteStreamFailure family: how a ByteStream reports a failed read, write, seek or close.
//
// Each concrete kind is at once
//   - a ByteStreamFailure (getErrorCode, clone, rethrow),
//   - an IInternalException (so an IException and a boost::exception), and
//   - a std::ios_base::failure whose what() is the class name ("ByteStreamReadFailure", ...)
//     and whose code() is std::io_errc::stream,
// so that iostream-based callers and framework-based callers can both catch it.
#pragma once

#include <foundation/core/except/IException.h>
#include <foundation/storage/provider/ErrorCode.h>

#include <ios>
#include <memory>

namespace foundation::storage::provider {

class ByteStreamFailure {
 public:
  virtual ~ByteStreamFailure() = default;
  virtual ErrorCode getErrorCode() const noexcept = 0;
  // A heap copy of the most derived kind.
  virtual std::unique_ptr<ByteStreamFailure> clone() const = 0;
  // Throws a copy of this failure by its most derived type.
  [[noreturn]] virtual void rethrow() const = 0;
};

namespace detail {

// The shared body of the four kinds; Name gives the class name used as the message.
template <class Derived>
class ByteStreamFailureKind : public ByteStreamFailure,
                              public core::except::IInternalException,
                              public std::ios_base::failure {
 public:
  explicit ByteStreamFailureKind(ErrorCode code)
      : std::ios_base::failure(Derived::kName, std::make_error_code(std::io_errc::stream)),
        code_(code) {}

  ErrorCode getErrorCode() const noexcept override { return code_; }
  std::unique_ptr<ByteStreamFailure> clone() const override {
    return std::make_unique<Derived>(static_cast<const Derived&>(*this));
  }
  [[noreturn]] void rethrow() const override { throw static_cast<const Derived&>(*this); }
  // The class name only: std::ios_base::failure would append the error category's text.
  const char* what() const noexcept override { return Derived::kName; }

 private:
  ErrorCode code_;
};

}  // namespace detail

class ByteStreamReadFailure final : public detail::ByteStreamFailureKind<ByteStreamReadFailure> {
 public:
  static constexpr const char* kName = "ByteStreamReadFailure";
  using ByteStreamFailureKind::ByteStreamFailureKind;
};

class ByteStreamWriteFailure final : public detail::ByteStreamFailureKind<ByteStreamWriteFailure> {
 public:
  static constexpr const char* kName = "ByteStreamWriteFailure";
  using ByteStreamFailureKind::ByteStreamFailureKind;
};

class ByteStreamSeekFailure final : public detail::ByteStreamFailureKind<ByteStreamSeekFailure> {
 public:
  static constexpr const char* kName = "ByteStreamSeekFailure";
  using ByteStreamFailureKind::ByteStreamFailureKind;
};

class ByteStreamCloseFailure final : public detail::ByteStreamFailureKind<ByteStreamCloseFailure> {
 public:
  static constexpr const char* kName = "ByteStreamCloseFailure";
  using ByteStreamFailureKind::ByteStreamFailureKind;
};

}  // namespace foundation::storage::provider
