#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "utils/file_descriptor.h"

namespace quillon::platform {

/// The size in bytes that the mail server wrote into the name of a message's file (",S=<bytes>"),
/// if it did.
std::optional<unsigned long long> SizeInName(std::string_view file_name);

/// Bytes of all messages in a mail directory: those in "cur" and "new" of every folder in it,
/// wherever it lies. Follows no link. What vanishes meanwhile is not counted; a sum beyond 64 bits
/// stays at the largest value, because the owner may rename the files. `path` is the directory's
/// name in messages. Throws `LogException` with `ERR_SDK_FILE_ENUM_DIR` or `ERR_LSTAT_FILE`, naming
/// the path, for what cannot be read.
unsigned long long CountMessageBytes(const FileDescriptor& maildir, const std::string& path);

}  // namespace quillon::platform
