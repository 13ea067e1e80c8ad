// Folders on this machine: the one a path lies in, and the missing ones
// above a file about to be written.
#pragma once

#include <string>

#include "status.h"

namespace kelp {

// "a/b/c" -> "a/b", "/c" -> "/", "c" -> ".".
std::string folder_of(const std::string& path);

// Creates the folders above path that are missing, mode 700; a failure
// names the folder ("cannot create the folder F: ...").
status make_parent_folders(const std::string& path);

}  // namespace kelp
