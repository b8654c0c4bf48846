#include "listing.h"

#include "names.h"

void AddListing(CLI::App& list, Listing& listing, const std::string& owners,
                const std::vector<std::string>& orders) {
  AddNames(list, listing.names, owners);
  list.add_option("--sort", listing.sort, "order of the " + owners)
      ->check(CLI::IsMember(orders))
      ->capture_default_str();
  list.add_flag("--reverse", listing.is_reversed, "highest first");
  AddPage(list, listing.page, owners);
  list.add_flag("--bytes", listing.in_bytes, "show exact sizes");
  list.add_flag("--json", listing.as_json, "print JSON");
}

Json::Value ParamsOf(const Listing& listing) {
  Json::Value params;
  params["sort"] = listing.sort;
  params["direction"] = listing.is_reversed ? "DESC" : "ASC";
  if (!listing.names.empty()) {
    params["names"] = NameArray(listing.names);
  }
  SetPage(listing.page, params);
  return params;
}
