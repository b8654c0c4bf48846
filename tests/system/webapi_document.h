#pragma once

#include <set>
#include <string>
#include <vector>

#include <json/value.h>

// What docs/webapi.md says.

namespace quillon::test {

std::string WebapiDocument();

/// Its blocks of code in one language.
std::vector<std::string> WebapiDocumentBlocks(const std::string& language);

/// A call, and what it is answered with.
struct WebapiExample {
  Json::Value request;
  Json::Value answer;
  std::set<std::string> varying;  ///< members whose values differ from call to call
};

/// A section "API METHOD".
struct DocumentedMethod {
  std::string api;
  std::string method;
  bool is_for_monitors = false;
  std::vector<WebapiExample> examples;
};

/// Throws when a section does not have the form that it should have.
std::vector<DocumentedMethod> DocumentedMethods();

}  // namespace quillon::test
