// Words an operator types: the nearest known one to a typo, and the one
// rule for yes and no in inventories and configuration files.
#pragma once

#include <string>
#include <vector>

// The closest of names to typed when it is close enough to be a typo, for
// "did you mean" hints; "" when none is.
std::string closest(const std::string& typed, const std::vector<std::string>& names);

// "true", "yes", "on", "1" (any case) and "false", "no", "off", "0": *value
// and true; anything else: false.
bool boolean_word(const std::string& text, bool* value);
