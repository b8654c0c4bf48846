#pragma once

#include <string>

/// A text as one word of a shell's command, in quotes where it needs them.
std::string ShellWord(const std::string& text);
