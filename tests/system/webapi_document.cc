#include "system/webapi_document.h"

#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "support/parse_json.h"

namespace quillon::test {

namespace {

struct Block {
  std::string language;
  std::string text;
};

// The rest of a block of code whose first line was read.
Block ReadBlock(const std::string& first_line, std::istream& text) {
  Block block{first_line.substr(3), ""};
  for (std::string line; std::getline(text, line) && line != "```";) {
    block.text += line + "\n";
  }
  return block;
}

// One or more lines of `NAME`, `NAME`….
std::set<std::string> ReadVarying(std::string line, std::istream& text) {
  static const std::regex word("`([^`]+)`");
  std::set<std::string> names;
  do {
    for (std::sregex_iterator name(line.begin(), line.end(), word), end; name != end; ++name) {
      names.insert((*name)[1]);
    }
  } while (std::getline(text, line) && !line.empty());
  return names;
}

std::vector<WebapiExample> Examples(const std::string& section) {
  std::vector<WebapiExample> examples;
  bool is_answer = false;
  std::istringstream text(section);
  for (std::string line; std::getline(text, line);) {
    if (line.starts_with("```")) {
      const Block block = ReadBlock(line, text);
      if (block.language != "json") {
        continue;
      }
      if (is_answer) {
        examples.back().answer = Parse(block.text);
      } else {
        examples.emplace_back().request = Parse(block.text);
      }
      is_answer = !is_answer;
    } else if (line.starts_with("Varies: ")) {
      examples.at(examples.size() - 1).varying = ReadVarying(line, text);
    }
  }
  if (is_answer) {
    throw std::runtime_error("the last example has no answer");
  }
  return examples;
}

bool IsForMonitors(const std::string& section) {
  if (section.find("\nVersion 1, for monitors, too. ") != std::string::npos) {
    return true;
  }
  if (section.find("\nVersion 1, for admins only. ") != std::string::npos) {
    return false;
  }
  throw std::runtime_error("it does not say who may call it");
}

}  // namespace

std::string WebapiDocument() {
  std::ifstream file(WEBAPI_DOCUMENT);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> WebapiDocumentBlocks(const std::string& language) {
  std::vector<std::string> blocks;
  std::istringstream text(WebapiDocument());
  for (std::string line; std::getline(text, line);) {
    if (line.starts_with("```")) {
      const Block block = ReadBlock(line, text);
      if (block.language == language) {
        blocks.push_back(block.text);
      }
    }
  }
  return blocks;
}

std::vector<DocumentedMethod> DocumentedMethods() {
  static const std::regex heading(R"(\n### ([\w.]+\.\w+) (\w+)\n)");
  const std::string document = WebapiDocument();
  std::vector<DocumentedMethod> methods;
  for (std::sregex_iterator match(document.begin(), document.end(), heading), end; match != end;
       ++match) {
    const auto begin = static_cast<std::size_t>(match->position() + match->length() - 1);
    const std::string section = document.substr(begin, document.find("\n##", begin) - begin);
    try {
      methods.push_back({(*match)[1], (*match)[2], IsForMonitors(section), Examples(section)});
    } catch (const std::exception& error) {
      throw std::runtime_error(match->str() + error.what());
    }
  }
  return methods;
}

}  // namespace quillon::test
