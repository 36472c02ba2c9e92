// The surfaces of a head folder for the pictures, refused when there are none.
#pragma once

#include <string>
#include <vector>

#include "surface/head_dir.h"

// read_head_dir(dir), and an InputError naming geometry.ans when it names
// no surface.
std::vector<HeadSurface> head_surfaces(const std::string &dir);
