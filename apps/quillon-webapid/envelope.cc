#include "envelope.h"

#include <exception>
#include <memory>
#include <sstream>
#include <utility>

#include <json/reader.h>
#include <json/writer.h>

namespace quillon::webapid {

namespace {

constexpr int kDeepestNesting = 200;

Json::StreamWriterBuilder OneLine() {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return builder;
}

Json::CharReaderBuilder Strict() {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["stackLimit"] = kDeepestNesting;
  return builder;
}

}  // namespace

// The programs have one thread each: a writer and a reader are made once, which takes longer than
// most texts do.
std::string ToText(const Json::Value& document) {
  static const std::unique_ptr<Json::StreamWriter> writer(OneLine().newStreamWriter());
  std::ostringstream text;
  text.exceptions(std::ios::badbit);  // else it just ends where memory does
  writer->write(document, &text);
  return std::move(text).str();
}

std::string SuccessText(const Json::Value& data) {
  Json::Value envelope;
  envelope["success"] = true;
  envelope["data"] = data;
  return ToText(envelope);
}

std::string FailureText(int code, const std::string& message) {
  Json::Value envelope;
  envelope["success"] = false;
  envelope["error"]["code"] = code;
  envelope["error"]["message"] = message;
  return ToText(envelope);
}

bool ParseObject(const std::string& text, Json::Value& request) {
  if (text.find('\0') != std::string::npos) {
    return false;  // it would pass for the end
  }
  static const std::unique_ptr<Json::CharReader> reader(Strict().newCharReader());
  try {
    return reader->parse(text.data(), text.data() + text.size(), &request, nullptr) &&
           request.isObject();
  } catch (const std::exception&) {
    return false;  // nested too deeply
  }
}

}  // namespace quillon::webapid
