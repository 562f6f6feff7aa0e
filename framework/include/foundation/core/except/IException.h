// IException and IInternalException: the root interfaces of the framework's exceptions.
//
// IException deliberately does not derive from std::exception: concrete exceptions add
// exactly one std::exception base of their own (std::runtime_error, std::ios_base::failure,
// ...), so that `catch (const std::exception&)` is never ambiguous.
// Thread safety: immutable values; safe to read from any thread.
#pragma once

#include <boost/exception/exception.hpp>
#include <string>

namespace foundation::core::except {

class IException {
 public:
  virtual ~IException() = default;
  // Human-readable description (UTF-8).
  virtual const char* what() const noexcept = 0;
};

// An exception raised inside a component that also carries Boost's error-information record,
// so that throw sites can attach diagnostic details with `<<`.
class IInternalException : public IException, public virtual boost::exception {};

// The text of an exception as narrow (UTF-8) or UTF-16 text:
// convert_str<std::string>(e) or convert_str<std::u16string>(e).
template <class String>
String convert_str(const IException& e);

template <>
std::string convert_str<std::string>(const IException& e);
template <>
std::u16string convert_str<std::u16string>(const IException& e);

}  // namespace foundation::core::except
