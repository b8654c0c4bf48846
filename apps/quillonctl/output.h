#pragma once

#include <string>
#include <string_view>

#include <json/value.h>

/// Writes to standard output, to its end. Throws `std::system_error`.
void WriteOutput(std::string_view text);

/// Writes a document to standard output, indented and in ASCII.
void WriteJson(const Json::Value& document);

/// Writes "quillonctl: MESSAGE" to standard error, on one line. A failure to write is ignored.
void WriteError(const std::string& message);

/// Whether standard output is a terminal whose user wants colours.
bool OutputHasColour();
