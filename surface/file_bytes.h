// Whole-file reading for the surface readers: every format is parsed from
// memory, which is both the fastest way through large surfaces and lets each
// reader check a count against the bytes that are really there before it
// allocates anything.
#pragma once

#include <string>

// The contents of `path`; throws InputError naming the file and the system's
// reason when it cannot be opened or read.
std::string read_file_bytes(const std::string &path);
