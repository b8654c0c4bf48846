#pragma once

/// Marks what is visible outside the shared object that defines it: what a library exports, and the
/// exceptions that are thrown in one shared object and caught in another.
#define VELAMAILSERVER_EXPORT __attribute__((visibility("default")))
