// Command lines of the companion programs: `--name value`, `--name=value`,
// flags and positional arguments, checked against what a subcommand knows.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

struct OptionSpec {
  std::string name;          // without the leading dashes, e.g. "min-gap"
  bool takes_value = false;  // false: a flag
  char short_name = 0;       // e.g. 'o' for -o, or 0
};

struct ParsedArgs {
  std::vector<std::string> positional;
  std::map<std::string, std::vector<std::string>> values;  // every occurrence, in order

  bool has(const std::string &name) const { return values.count(name) > 0; }
  // The last value given for `name`, if any.
  std::optional<std::string> get(const std::string &name) const;
  std::string get_or(const std::string &name, const std::string &fallback) const;
  // The value as a number; a value that is not one entirely is a usage error.
  std::optional<double> number(const std::string &name) const;
};

// Parse argv[first..argc-1].  Unknown options and missing values are usage
// errors (InputError).  "--" ends the options.
ParsedArgs parse_args(int argc, char **argv, int first, const std::vector<OptionSpec> &known);

// A number in `text`, entirely; `what` names it in the usage error otherwise.
double parse_number(const std::string &text, const std::string &what);
// Comma-separated numbers ("0.33,0.0042,0.33").
std::vector<double> parse_number_list(const std::string &text, const std::string &what);
