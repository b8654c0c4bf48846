#pragma once

/// Marks what the shared object exports; everything else in it is hidden.
#define VELAMAILSERVER_EXPORT __attribute__((visibility("default")))
