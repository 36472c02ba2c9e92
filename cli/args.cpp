#include "cli/args.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "cli/failure.h"

std::optional<std::string> ParsedArgs::get(const std::string &name) const {
  auto it = values.find(name);
  if (it == values.end() || it->second.empty()) return std::nullopt;
  return it->second.back();
}

std::string ParsedArgs::get_or(const std::string &name, const std::string &fallback) const {
  auto v = get(name);
  return v ? *v : fallback;
}

std::optional<double> ParsedArgs::number(const std::string &name) const {
  auto v = get(name);
  if (!v) return std::nullopt;
  return parse_number(*v, "--" + name);
}

double parse_number(const std::string &text, const std::string &what) {
  const char *s = text.c_str();
  char *end = nullptr;
  errno = 0;
  double x = strtod(s, &end);
  if (text.empty() || *end != 0 || errno == ERANGE || !std::isfinite(x))
    usage_fail(what + ": '" + text + "' is not a number");
  return x;
}

std::vector<double> parse_number_list(const std::string &text, const std::string &what) {
  std::vector<double> out;
  size_t start = 0;
  while (true) {
    size_t comma = text.find(',', start);
    out.push_back(parse_number(text.substr(start, comma == std::string::npos ? std::string::npos : comma - start), what));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return out;
}

ParsedArgs parse_args(int argc, char **argv, int first, const std::vector<OptionSpec> &known) {
  ParsedArgs out;
  bool options_done = false;
  for (int i = first; i < argc; i++) {
    std::string a = argv[i];
    if (options_done || a.size() < 2 || a[0] != '-' || (a[1] != '-' && !std::isalpha((unsigned char)a[1]))) {
      out.positional.push_back(a);  // also "-" and negative numbers
      continue;
    }
    if (a == "--") {
      options_done = true;
      continue;
    }
    std::string name, value;
    bool has_value = false;
    const OptionSpec *found = nullptr;
    if (a[1] == '-') {
      name = a.substr(2);
      size_t eq = name.find('=');
      if (eq != std::string::npos) {
        value = name.substr(eq + 1);
        name = name.substr(0, eq);
        has_value = true;
      }
      for (const auto &o : known)
        if (o.name == name) found = &o;
    } else {
      if (a.size() != 2) usage_fail("unknown option " + a);
      for (const auto &o : known)
        if (o.short_name == a[1]) found = &o;
    }
    if (!found) usage_fail("unknown option " + a);
    if (found->takes_value) {
      if (!has_value) {
        if (i + 1 >= argc) usage_fail("option " + a + " needs a value");
        value = argv[++i];
      }
    } else if (has_value) {
      usage_fail("option --" + found->name + " takes no value");
    }
    out.values[found->name].push_back(value);
  }
  return out;
}
