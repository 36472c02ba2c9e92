// Lists of names as the command lines and messages of the data command
// write them.
#pragma once

#include <string>
#include <vector>

// "Fp1,Fp2,Cz" -> {"Fp1", "Fp2", "Cz"} (empty items kept).
std::vector<std::string> split_commas(const std::string &text);

// The items one after the other with `separator` between them.
std::string join(const std::vector<std::string> &items, const std::string &separator);

// A number of seconds as "%g" writes it ("0.5", "-0.1").
std::string seconds_text(double s);
