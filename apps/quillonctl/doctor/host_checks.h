#pragma once

#include <vector>

#include "doctor/check.h"

/// The checks of what is this system's own: accounts, mail directories, stores, folders.
std::vector<Check> HostChecks();
