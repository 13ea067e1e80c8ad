// Names as people sort them: "router2" before "router10", for every list
// of hosts the tool, the service and its page show.
#pragma once

#include <string>

bool natural_less(const std::string& a, const std::string& b);
