// Local files as operators expect of their tools: inputs read whole with an
// error that names the file and the reason, outputs replaced atomically
// (a temporary in the same folder, flushed to disk, renamed over the target),
// so that a failed or interrupted run leaves the previous file as it was.
#pragma once

#include <sys/types.h>

#include <string>

#include "folders.h"  // make_parent_folders, for the files written here
#include "status.h"

// What a configuration, key or rule file may hold at the most: anything
// larger is not one.
constexpr size_t settings_file_max = 1 << 20;

// Reads a regular file, a pipe or a FIFO with a writer ("-": stdin). A
// folder, a device or anything above max_bytes is refused.
kelp::status read_input(const std::string& path, kelp::bytes* out, size_t max_bytes);

// Replaces path with data. A new file gets mode (secrets: 0600); a file
// replaced keeps its mode, and its owner and group where allowed; through a
// symbolic link, the file it points to is replaced and the link stays. "-"
// writes to stdout; a character device (/dev/null, /dev/full, a terminal)
// is written in place, as there is nothing to rename over.
kelp::status write_output(const std::string& path, const kelp::bytes& data, mode_t mode);

// Creates path, which must not exist, with data: for files in a staging
// folder whose own rename into place is the atomic step.
kelp::status write_new_file(const std::string& path, const kelp::bytes& data, mode_t mode);

// Removes a folder and everything in it.
void remove_tree(const std::string& path);

// From here on, SIGINT, SIGTERM and SIGHUP remove the temporary being
// written before the process ends.
void remove_temporaries_on_signals();
