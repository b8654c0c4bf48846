#include "parameters.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include <vela/api_runner.h>
#include <velamailserver/utils/text.h>

namespace quillon::handlers {

namespace {

[[noreturn]] void Refuse(const std::string& message) {
  throw VELA::APIError(VELA::APIRunner::kBadParameters, message);
}

[[noreturn]] void Refuse(const char* name, const std::string& expectation) {
  Refuse("parameter [" + std::string(name) + "] must be " + expectation);
}

// A number with a fraction or an exponent has lost digits beyond 2^53 already.
bool IsWholeNumber(const Json::Value& value) {
  return value.type() == Json::intValue || value.type() == Json::uintValue;
}

// It would cut the text off in the C interfaces and messages behind.
std::string WithoutNul(const char* name, const Json::Value& value) {
  std::string text = value.asString();
  if (text.find('\0') != std::string::npos) {
    Refuse(name, "without NUL characters");
  }
  return text;
}

}  // namespace

Parameters::Parameters(const Json::Value& params, std::initializer_list<std::string_view> known)
    : params_(params) {
  if (!params.isObject() && !params.isNull()) {
    Refuse("the parameters must be an object");
  }
  for (const std::string& name : params.getMemberNames()) {
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      Refuse("unknown parameter [" + name + "]");
    }
  }
}

bool Parameters::Has(const char* name) const { return params_.isMember(name); }

std::string Parameters::Text(const char* name) const {
  const Json::Value& value = Required(name);
  if (!value.isString()) {
    Refuse(name, "a string");
  }
  return WithoutNul(name, value);
}

std::string_view Parameters::Bytes(const char* name) const {
  const char* begin = nullptr;
  const char* end = nullptr;
  if (!Required(name).getString(&begin, &end)) {
    Refuse(name, "a string");
  }
  return {begin, static_cast<std::size_t>(end - begin)};
}

std::vector<std::string> Parameters::Texts(const char* name) const {
  const Json::Value& value = Required(name);
  if (!value.isArray()) {
    Refuse(name, "an array of strings");
  }
  std::vector<std::string> texts;
  texts.reserve(value.size());
  for (const Json::Value& text : value) {
    if (!text.isString()) {
      Refuse(name, "an array of strings");
    }
    texts.push_back(WithoutNul(name, text));
  }
  return texts;
}

std::string Parameters::Choice(const char* name,
                               std::initializer_list<std::string_view> choices) const {
  const Json::Value& value = Required(name);
  if (value.isString()) {
    std::string text = value.asString();
    if (std::find(choices.begin(), choices.end(), text) != choices.end()) {
      return text;
    }
  }
  Refuse(name, "one of " + velamailserver::Join({choices.begin(), choices.end()}, ", "));
}

unsigned long long Parameters::Unsigned(const char* name) const {
  const Json::Value& value = Required(name);
  if (!IsWholeNumber(value) || !value.isUInt64()) {
    Refuse(name, "a whole number from 0 to 18446744073709551615");
  }
  return value.asUInt64();
}

long long Parameters::Signed(const char* name) const {
  const Json::Value& value = Required(name);
  if (!IsWholeNumber(value) || !value.isInt64()) {
    Refuse(name, "a whole number from -9223372036854775808 to 9223372036854775807");
  }
  return value.asInt64();
}

double Parameters::Number(const char* name) const {
  const Json::Value& value = Required(name);
  if (!value.isNumeric() || !std::isfinite(value.asDouble())) {
    Refuse(name, "a number");
  }
  return value.asDouble();
}

bool Parameters::Flag(const char* name) const {
  const Json::Value& value = Required(name);
  if (!value.isBool()) {
    Refuse(name, "true or false");
  }
  return value.asBool();
}

std::vector<std::uint32_t> Parameters::Ids(const char* name) const {
  const Json::Value& value = Required(name);
  constexpr char kExpectation[] = "an array of whole numbers from 0 to 4294967295";
  if (!value.isArray()) {
    Refuse(name, kExpectation);
  }
  std::vector<std::uint32_t> ids;
  ids.reserve(value.size());
  for (const Json::Value& id : value) {
    if (!IsWholeNumber(id) || !id.isUInt()) {
      Refuse(name, kExpectation);
    }
    ids.push_back(id.asUInt());
  }
  return ids;
}

const Json::Value& Parameters::Required(const char* name) const {
  if (!Has(name)) {
    Refuse("parameter [" + std::string(name) + "] is missing");
  }
  return params_[name];
}

}  // namespace quillon::handlers
