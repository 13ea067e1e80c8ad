// Which hosts' current files contain a text: file, line number and line.
#pragma once

#include <string>
#include <vector>

#include "git_store.h"

// Text files only (a file with a NUL byte is skipped), at most max_matches,
// all read from one tree: a commit meanwhile is seen whole or not at all.
// paths within the host's folder.
json search_files(git_store& git, const std::vector<std::string>& hosts, const std::string& text,
                  size_t max_matches = 1000);
