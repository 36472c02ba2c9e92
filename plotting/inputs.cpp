#include "plotting/inputs.h"

#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <numeric>

#include "cli/failure.h"
#include "cli/progress.h"
#include "plotting/figure.h"
#include "plotting/text.h"
#include "surface/head_dir.h"

int show_help(const char *help) {
  fputs(help, stdout);
  return 0;
}

ParsedArgs picture_args(int argc, char **argv, const std::vector<OptionSpec> &options) {
  ParsedArgs args = parse_args(argc, argv, 1, options);
  if (!args.positional.empty()) usage_fail("unexpected argument '" + args.positional[0] + "'");
  set_quiet(args.has("quiet"));
  return args;
}

std::string required(const ParsedArgs &args, const std::string &name) {
  auto v = args.get(name);
  if (!v || v->empty()) usage_fail("--" + name + " is required");
  return *v;
}

std::string output_path(const ParsedArgs &args) {
  std::string out = required(args, "output");
  figure_format(out);
  return out;
}

void write_picture(const ParsedArgs &args, const std::string &out, int width, int height, const DrawFunction &draw) {
  double scale = 1;
  if (auto w = args.number("width")) {
    if (!(*w >= 200 && *w <= 6000)) usage_fail("--width: give 200 to 6000 pixels");
    scale = *w / width;
  }
  write_figure(out, width, height, draw, scale);
}

std::string head_of_electrodes(const ParsedArgs &args, const std::string &electrodes) {
  if (auto h = args.get("head")) return *h;
  size_t slash = electrodes.find_last_of('/');
  std::string dir = slash == std::string::npos ? "." : electrodes.substr(0, slash);
  struct stat st;
  if (stat((dir + "/geometry.ans").c_str(), &st) == 0) return dir;
  usage_fail("--head is required: the electrodes' triangles are those of a head (folder or scalp file)");
}

PlacedElectrodes place_electrodes(const std::string &electrodes, const std::string &head) {
  PlacedElectrodes p;
  std::vector<ElectrodeEntry> entries = read_electrode_file(electrodes);
  p.scalp = read_scalp(head);
  for (const auto &e : entries) {
    p.positions.push_back(electrode_position(e, p.scalp));
    p.labels.push_back(e.label);
  }
  return p;
}

int chosen_sample(const ParsedArgs &args, const MatrixFile &m, const std::string &path) {
  if (args.has("sample") && args.has("time")) usage_fail("give --sample or --time, not both");
  if (auto t = args.number("time")) {
    auto f = sample_frequency(m);
    if (!f) fail(path, "tail", "no sample frequency recorded: choose the sample with --sample");
    double s = std::round(*t * *f);
    if (!(s >= 0 && s < m.cols))
      fail(path, "time " + format_number(*t),
           "outside the recording (" + std::to_string(m.cols) + " samples at " + format_number(*f) + " Hz)");
    return (int)s;
  }
  double n = args.number("sample").value_or(1);
  if (n != std::floor(n) || n < 1 || n > m.cols)
    fail(path, "sample " + args.get_or("sample", "1"),
         "past the end: the file has " + std::to_string(m.cols) + " sample" + (m.cols == 1 ? "" : "s") +
             ", counted from 1");
  return (int)n - 1;
}

void check_rows(const MatrixFile &m, const std::string &path, size_t electrodes, const std::string &electrode_file) {
  if ((size_t)m.rows != electrodes)
    fail(path, "",
         "has " + std::to_string(m.rows) + " rows, but " + electrode_file + " has " + std::to_string(electrodes) +
             " electrodes");
}

void check_moment_rows(const MatrixFile &moments, const std::string &path, const std::vector<SourcePosition> &sources) {
  std::vector<int> rows = moment_rows(sources);
  int need = std::accumulate(rows.begin(), rows.end(), 0);
  bool moving = !sources.empty() && sources[0].moving;
  if (moving) need += 3 * (int)sources.size();
  if (moments.rows != need)
    fail(path, "",
         "has " + std::to_string(moments.rows) + " rows, but the " + std::to_string(sources.size()) + " source" +
             (sources.size() == 1 ? "" : "s") + " of the position file need " + std::to_string(need));
}

void take_moving_positions(std::vector<SourcePosition> &sources, const MatrixFile &moments, int sample) {
  if (sources.empty() || !sources[0].moving) return;
  std::vector<int> rows = moment_rows(sources);
  int first = std::accumulate(rows.begin(), rows.end(), 0);
  for (size_t k = 0; k < sources.size(); k++)
    for (int c = 0; c < 3; c++) sources[k].position[c] = moments.at(first + 3 * (int)k + c, sample);
}

std::optional<Vec3> dipole_moment(const std::vector<SourcePosition> &sources, size_t k, const MatrixFile *moments,
                                  int sample) {
  std::vector<int> rows = moment_rows(sources);
  int first = std::accumulate(rows.begin(), rows.begin() + (long)k, 0);
  bool usable = moments && sample < moments->cols && first + rows[k] <= moments->rows;
  if (rows[k] == 3 && usable)
    return Vec3{moments->at(first, sample), moments->at(first + 1, sample), moments->at(first + 2, sample)};
  if (!sources[k].angles) return std::nullopt;
  Vec3 d = direction_of_angles(*sources[k].angles);
  if (usable && moments->at(first, sample) < 0)
    for (double &x : d) x = -x;
  return d;
}
