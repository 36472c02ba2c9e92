// Tables of numbers in text: comma, semicolon or tab separated values, one
// row per line.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "recordings/numeric_array.h"

struct TextTable {
  std::vector<std::string> header;  // the first line's fields, when asked for
  NumericArray numbers;             // every following line, one row each
};

// Read a table from `path`.
//   with_header: the first line names the columns rather than holding numbers.
// The separator is a tab for ".tsv" files and lines holding tabs, else ';'
// when the first line holds ';' and no ',', else ','.  Empty lines and lines
// starting with '#' are skipped; fields may be surrounded by blanks or double
// quotes.  Throws InputError "PATH: line N: ..." for a row with another
// number of fields than the first, or a field that is not a number.
TextTable read_text_table(const std::string &path, bool with_header);

// Write `a` to `fp`, one row per line, numbers separated by `separator`,
// each with enough digits to give back the same single-precision value.
void write_text_table(FILE *fp, const NumericArray &a, char separator);
