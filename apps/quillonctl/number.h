#pragma once

#include <string>

// Numbers as options give them: all of `text`, in decimal. Anything else throws
// `std::invalid_argument` that says what is wrong with it.

/// A whole number from 0 to `most`, in digits only.
unsigned long long ParseWholeNumber(const std::string& text, unsigned long long most);

/// Any finite number.
double ParseNumber(const std::string& text);
