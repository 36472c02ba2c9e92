#include "plotting/timecourse_command.h"

#include <sys/stat.h>

#include <cstdio>

#include "cli/args.h"
#include "cli/failure.h"
#include "cli/progress.h"
#include "cli/subcommand.h"
#include "plotting/figure.h"
#include "plotting/inputs.h"
#include "plotting/text.h"
#include "plotting/timecourse.h"

namespace {

const char *help =
    "usage: brelix-plot timecourse --fit SOLUTION.mat [options] -o OUT.png\n"
    "\n"
    "Plots each dipole's moment over the samples of a fit, one panel per\n"
    "dipole: its x, y and z components (free orientation) or its amplitude\n"
    "along the fitted direction, each with a band of plus and minus one\n"
    "standard deviation.  The time axis is in ms when the file records its\n"
    "sample frequency, in samples otherwise.\n"
    "\n"
    "options:\n"
    "  --fit SOLUTION.mat   the moments brelix wrote for the fit\n"
    "  --sd SOLUTION.mat.sd their standard deviations (default: SOLUTION.mat.sd\n"
    "                       when it exists)\n"
    "  --sources FIT.pos    the source position file of the fit, whose constraint\n"
    "                       lines tell which rows belong to which dipole; without\n"
    "                       it every three rows are one dipole (a single row each\n"
    "                       when the row count is not a multiple of three)\n"
    "  --unit U             unit of the moments (default A·m; SI prefixes are\n"
    "                       chosen to suit the values)\n"
    "  --width PX           width of the picture in pixels (everything scales)\n"
    "  -o, --output OUT     the picture: .png, .svg or .pdf\n"
    "  -q, --quiet          no note on standard error when it is written\n"
    "\n"
    "example:\n"
    "  brelix-plot timecourse --fit fit.mat --sources fit.pos -o moments.png\n";

const std::vector<OptionSpec> options = {{"fit", true},   {"sd", true},          {"sources", true},    {"unit", true},
                                         {"width", true}, {"output", true, 'o'}, {"quiet", false, 'q'}};

}  // namespace

int plot_timecourse(int argc, char **argv) {
  if (wants_help(argc, argv)) return show_help(help);
  ParsedArgs args = picture_args(argc, argv, options);
  std::string out = output_path(args);
  std::string fit_path = required(args, "fit");
  MatrixFile fit = read_matrix_file(fit_path);
  struct stat st;
  std::string sd_path = args.get_or("sd", stat((fit_path + ".sd").c_str(), &st) == 0 ? fit_path + ".sd" : "");
  std::optional<MatrixFile> sd;
  if (!sd_path.empty()) {
    sd = read_matrix_file(sd_path);
    if (sd->rows != fit.rows || sd->cols != fit.cols)
      fail(sd_path, "",
           "is " + std::to_string(sd->rows) + " x " + std::to_string(sd->cols) + ", but " + fit_path + " is " +
               std::to_string(fit.rows) + " x " + std::to_string(fit.cols));
  }
  std::vector<int> rows;
  if (auto sp = args.get("sources")) {
    std::vector<SourcePosition> sources = read_position_file(*sp);
    check_moment_rows(fit, fit_path, sources);
    rows = moment_rows(sources);
  } else {
    rows.assign(fit.rows % 3 == 0 ? fit.rows / 3 : fit.rows, fit.rows % 3 == 0 ? 3 : 1);
  }

  Timecourse t;
  t.unit = args.get_or("unit", "A·m");
  auto f = sample_frequency(fit);
  t.time_unit = f ? "ms" : "";
  for (int c = 0; c < fit.cols; c++) t.times.push_back(f ? 1000.0 * c / *f : c + 1.0);
  int row = 0;
  for (size_t k = 0; k < rows.size(); k++) {
    TimecourseDipole d;
    d.title = "dipole " + std::to_string(k + 1);
    static const char *names[] = {"x", "y", "z"};
    for (int i = 0; i < rows[k]; i++, row++) {
      MomentTrace tc;
      tc.name = rows[k] == 3 ? names[i] : "amplitude";
      for (int c = 0; c < fit.cols; c++) {
        tc.value.push_back(fit.at(row, c));
        if (sd) tc.sd.push_back(sd->at(row, c));
      }
      d.traces.push_back(tc);
    }
    t.dipoles.push_back(d);
  }
  t.title = "Dipole moment" + std::string(rows.size() > 1 ? "s" : "") + " over " + std::to_string(fit.cols) +
            " sample" + (fit.cols == 1 ? "" : "s") + (sd ? " (band: ±1 SD)" : "");
  t.subtitle = "From fit " + base_name(fit_path) + (sd ? ", SD " + base_name(sd_path) : "") +
               (args.has("sources") ? ", sources " + base_name(*args.get("sources")) : "") +
               (f ? ", " + format_number(*f, 6) + " Hz" : ", sample frequency unknown") + ".";
  write_picture(args, out, timecourse_width(), timecourse_height(t), [&](cairo_t *cr) { draw_timecourse(cr, t); });
  note("brelix-plot timecourse: wrote " + out);
  return 0;
}
