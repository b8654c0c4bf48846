#pragma once

#include <quillon/platform/file_descriptor.h>
