#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include <json/value.h>

namespace quillon::handlers {

/// The parameters of one call, checked as they are read. Whatever is wrong is refused by an
/// `APIError` with `kBadParameters` that names the parameter. The document must outlive the object.
class Parameters {
 public:
  /// Refuses members that are not `known`, and anything but an object; null counts as an empty one.
  Parameters(const Json::Value& params, std::initializer_list<std::string_view> known);

  bool Has(const char* name) const;

  // Each refuses a parameter that is missing.
  std::string Text(const char* name) const;
  /// A text of any bytes, NUL characters among them. Valid as long as the document.
  std::string_view Bytes(const char* name) const;
  std::vector<std::string> Texts(const char* name) const;
  /// A text that is one of `choices`.
  std::string Choice(const char* name, std::initializer_list<std::string_view> choices) const;
  /// A whole number, written without a fraction or an exponent.
  unsigned long long Unsigned(const char* name) const;
  long long Signed(const char* name) const;
  /// Any finite number.
  double Number(const char* name) const;
  bool Flag(const char* name) const;
  /// The numbers of users or groups.
  std::vector<std::uint32_t> Ids(const char* name) const;

 private:
  const Json::Value& Required(const char* name) const;

  const Json::Value& params_;
};

}  // namespace quillon::handlers
