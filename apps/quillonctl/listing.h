#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <json/value.h>

#include "options.h"

/// Whose quota to list, and how: what the lists of users and of groups have in common.
struct Listing {
  std::vector<std::string> names;
  std::string sort = "name";
  bool is_reversed = false;
  Page page;
  bool in_bytes = false;
  bool as_json = false;
};

/// Adds NAME…, the names of `owners`, --sort by one of `orders`, --reverse, --offset, --limit,
/// --bytes and --json.
void AddListing(CLI::App& list, Listing& listing, const std::string& owners,
                const std::vector<std::string>& orders);

/// The parameters of the API's call.
Json::Value ParamsOf(const Listing& listing);
