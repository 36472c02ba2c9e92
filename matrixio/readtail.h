// Named items in the text tail of a matrix file: a line beginning with the
// item's name (case-insensitive), then a line with its value.
#pragma once

// Position in `tail` of the line after the first line that begins with
// `item`, or nullptr (also when that line would lie past the tail's end).
const char *find_tail_item(int tail_len, const char *tail, const char *item);

// 1 and *value set when the value line of `item` begins with a number;
// 0 otherwise, *value unchanged.
int tail_float(int tail_len, const char *tail, const char *item, float *value);
