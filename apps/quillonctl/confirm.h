#pragma once

#include <string>

/// Whether there is a terminal to ask somebody on.
bool CanAsk();

/// Asks a question on the terminal. Only "y" and "yes", in any letter case, agree.
bool IsAgreed(const std::string& question);
