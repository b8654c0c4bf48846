#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <json/value.h>

#include "command.h"
#include "table.h"

/// How mail directories are removed with the method of an API that measures and removes them:
///   {`parameter`: [OWNER…], "dry_run"} → {"removed": […], "left": […], `without`: [OWNER…]},
///   with "dry_run" {"maildirs": […], `without`: [OWNER…]}
/// with entries {…, "path", "usage", "messages"}, whose figures may be null.
struct Removal {
  /// A column of the table that is shown, and the member of an entry that it shows.
  struct Column {
    std::string title;
    Table::Align align;
    const char* member;
  };

  const char* api = nullptr;
  const char* method = nullptr;
  const char* parameter = nullptr;
  std::vector<Column> columns;  ///< in front of the path; the first one tells the owner
  std::string noun;             ///< what a directory is called
  std::string plural;
  const char* without = nullptr;  ///< owners without a directory
  std::string without_text;       ///< what is said before their list
  /// Whether having no directory is a failure, and the API need not be called for it.
  bool needs_directory = false;
};

struct RemovalOptions {
  std::vector<std::string> arguments;  ///< as they were typed
  Json::Value owners = Json::Value(Json::arrayValue);
  bool is_agreed = false;
  bool is_dry_run = false;
  bool as_json = false;
};

/// Adds --yes, --dry-run and --json.
void AddRemovalOptions(CLI::App& command, RemovalOptions& options);

/// Throws `CLI::RequiredError` where a removal was not agreed to and nobody can be asked. Nothing
/// is removed unasked.
void RequireAgreement(const RemovalOptions& options);

/// Shows the directories of `options.owners`, asks, removes them and says what was removed and what
/// is left; answers the exit code. Only what was shown is removed. Throws `CallError`; what an
/// error tells of the directories is shown before.
int Remove(const Removal& removal, const RemovalOptions& options);
