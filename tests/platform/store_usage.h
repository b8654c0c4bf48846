#pragma once

#include <vector>

#include <gtest/gtest.h>

#include <quillon/platform/usage_count.h>

#include "backend/usage_writer.h"

namespace quillon::backend {

inline UsageEntries Pointers(std::vector<UsageEntry>& entries) {
  UsageEntries pointers;
  for (UsageEntry& entry : entries) {
    pointers.push_back(&entry);
  }
  return pointers;
}

/// Puts the figures into the usage store as a count does that nobody comes in between of.
inline void StoreUsage(const std::vector<platform::CountedUsage>& figures) {
  std::vector<UsageEntry> entries;
  for (const platform::CountedUsage& figure : figures) {
    UsageEntry& entry = entries.emplace_back();
    entry.name = figure.name;
    entry.bytes = figure.bytes;
  }
  UsageWriter writer;
  writer.Read(Pointers(entries));
  writer.StoreUnlessChanged(Pointers(entries));
  for (const UsageEntry& entry : entries) {
    ASSERT_TRUE(entry.is_stored) << entry.name;
  }
}

}  // namespace quillon::backend
