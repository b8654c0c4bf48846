// What a worker gets from the front: any bytes as a stream of frames, and any text as a request. As
// a request, an input's first byte is the role, and lines "--" divide its parts.
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <json/reader.h>

#include <vela/api_runner.h>

#include "frame.h"
#include "fuzz/platform.h"
#include "webapi/host_apis.h"
#include "worker.h"

namespace quillon::platform {

// In the place of the host's own APIs.
Json::Value GetShareQuota(const Json::Value& params) { return params; }
Json::Value GetUtilization(const Json::Value& params) { return params; }
Json::Value GetWebPorts(const Json::Value& params) { return params; }

}  // namespace quillon::platform

namespace quillon::fuzz {
namespace {

using webapid::Frame;

bool echo_was_called = false;

void Prepare() {
  platform::UseConfiguration(QuietConfiguration());
  VELA::APIRunner::Register("Echo", 1, "get", [](const Json::Value& params) {
    echo_was_called = true;
    return params;
  });
  VELA::APIRunner::Register("Echo", 1, "fail", [](const Json::Value& params) -> Json::Value {
    echo_was_called = true;
    throw VELA::APIError(1234, params.toStyledString(), params);
  });
}

bool IsSame(const Frame& a, const Frame& b) {
  return a.index == b.index && a.generation == b.generation && a.code == b.code &&
         a.parts == b.parts;
}

// The frames in a stream that arrives in pieces, and the text of what ended it.
std::vector<Frame> Read(std::string_view stream, std::size_t piece, std::string& problem) {
  std::vector<Frame> frames;
  webapid::FrameReader reader;
  try {
    while (!stream.empty()) {
      reader.Append(stream.substr(0, piece));
      stream.remove_prefix(std::min(piece, stream.size()));
      while (auto frame = reader.Next()) {
        frames.push_back(std::move(*frame));
      }
    }
  } catch (const webapid::FrameError& error) {
    problem = error.what();
  }
  return frames;
}

void RequireReadsBack(const Frame& frame, const std::string& bytes) {
  std::string problem;
  const std::vector<Frame> again = Read(bytes, bytes.size(), problem);
  Require(problem.empty() && again.size() == 1 && IsSame(again.front(), frame),
          "a written frame reads back");
}

void ReadStream(std::string_view stream) {
  std::string problem;
  const std::vector<Frame> frames = Read(stream, std::max<std::size_t>(stream.size(), 1), problem);
  for (const std::size_t piece : {std::size_t{1}, std::size_t{7}}) {
    std::string other_problem;
    const std::vector<Frame> in_pieces = Read(stream, piece, other_problem);
    Require(std::equal(frames.begin(), frames.end(), in_pieces.begin(), in_pieces.end(), IsSame) &&
                problem == other_problem,
            "it does not matter in which pieces a stream arrives");
  }
  std::string_view rest = stream;
  for (const Frame& frame : frames) {
    const std::string bytes = webapid::Encode(frame);
    Require(rest.starts_with(bytes), "a frame that was read is written the same way");
    rest.remove_prefix(bytes.size());
    RequireReadsBack(frame, bytes);
  }
}

// Keys that are no UTF-8 may be the same in an answer that echoes them.
bool Parse(const std::string& text, Json::Value& value) {
  static const std::unique_ptr<Json::CharReader> reader = [] {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["rejectDupKeys"] = false;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
  }();
  return reader->parse(text.data(), text.data() + text.size(), &value, nullptr) && value.isObject();
}

void RequireAnswer(const Frame& request, const Frame& answer) {
  Require(answer.index == request.index && answer.generation == request.generation,
          "an answer says which request it is about");
  static const std::set<std::uint32_t> statuses = {200, 400, 403, 500};
  Require(statuses.contains(answer.code), "the status is one of a worker's");
  Require(answer.parts.size() == 1, "an answer is one part");
  Json::Value envelope;
  Require(Parse(answer.parts.front(), envelope), "an answer is an object");
  Require(envelope["success"].isBool(), "an envelope says how it went");
  Require(envelope["success"].asBool() ||
              (envelope["error"]["code"].isInt() && envelope["error"]["message"].isString()),
          "a failure says why");
  RequireReadsBack(answer, webapid::Encode(answer));
}

void AnswerRequest(std::string_view input) {
  if (input.empty()) {
    return;
  }
  Frame request{3, 4, static_cast<std::uint32_t>(input.front() - '0'), {}};
  input.remove_prefix(1);
  while (!input.empty()) {
    request.parts.emplace_back(Cut(input, "\n--\n"));
  }
  echo_was_called = false;
  RequireAnswer(request, webapid::Answer(request));
  Require(!echo_was_called || request.code == webapid::kAdmin,
          "who is no administrator calls only what monitors may");
}

}  // namespace
}  // namespace quillon::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillon::fuzz;
  [[maybe_unused]] static const bool is_prepared = (Prepare(), true);
  ReadStream(TextOf(data, size));
  AnswerRequest(TextOf(data, size));
  return 0;
}
