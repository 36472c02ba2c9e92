// The parts of a file path, as the writers and the companion programs need
// them.
#pragma once

#include <string>

// The folder part of path: "." when it names no folder, "/" for a file in
// the root.
std::string folder_of(const std::string &path);
// The name part of path: everything after its last slash.
std::string base_name(const std::string &path);
