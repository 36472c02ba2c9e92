#include "plotting/topomap_command.h"

#include <cmath>
#include <cstdio>

#include "cli/args.h"
#include "cli/failure.h"
#include "cli/progress.h"
#include "cli/subcommand.h"
#include "plotting/figure.h"
#include "plotting/inputs.h"
#include "plotting/text.h"
#include "plotting/topomap.h"

namespace {

const char *help =
    "usage: brelix-plot topomap --electrodes E.elc --data D.mat [options] -o OUT.png\n"
    "\n"
    "Draws the potentials of one sample as maps over a top view of the head\n"
    "(azimuthal equidistant projection around the vertex, nose up, left on the\n"
    "left), smoothly interpolated between the electrodes by spherical splines,\n"
    "with contour lines (negative ones dashed) and the electrodes.  With\n"
    "--model, the measured map, the model map and their difference stand side\n"
    "by side on one colour scale, symmetric about zero, and the relative\n"
    "difference of the sample is printed.  Every map is average-referenced.\n"
    "\n"
    "options:\n"
    "  --electrodes E.elc  electrode file (brelix's layout, labels after '!')\n"
    "  --head DIR|S.tri    the head the electrode file refers to: a head folder\n"
    "                      (geometry.ans) or the scalp's triangle file; default:\n"
    "                      the electrode file's folder when it holds geometry.ans\n"
    "  --data D.mat        measured potentials, one row per electrode\n"
    "  --model P.mat       model potentials of the fit (brelix's forward data)\n"
    "  --sample N          the sample to show, counted from 1 (default 1)\n"
    "  --time T            or the sample at T seconds after the first, by the\n"
    "                      sample frequency recorded in D.mat\n"
    "  --dipoles FIT.pos   fitted dipoles, drawn as arrows of their horizontal\n"
    "                      moment (a ring with a dot or cross: mostly up or down)\n"
    "  --moments FIT.mat   the fit's moments, for the arrows of dipoles with a\n"
    "                      free orientation (rows as brelix writes them), and\n"
    "                      the positions of moving dipoles at the sample\n"
    "  --unit U            unit of the potentials (default V; SI prefixes are\n"
    "                      chosen to suit the values)\n"
    "  --no-labels         electrode dots without their labels\n"
    "  --width PX          width of the picture in pixels (everything scales)\n"
    "  -o, --output OUT    the picture: .png, .svg or .pdf\n"
    "  -q, --quiet         no note on standard error when it is written\n"
    "\n"
    "example:\n"
    "  brelix-plot topomap --electrodes electrodes.elc --head scalp.tri \\\n"
    "      --data data.mat --model fitpot.mat --dipoles fit.pos --moments fit.mat \\\n"
    "      -o topomap.png\n";

constexpr size_t max_electrodes = 1024;

const std::vector<OptionSpec> options = {
    {"electrodes", true}, {"head", true},        {"data", true},       {"model", true}, {"sample", true},
    {"time", true},       {"dipoles", true},     {"moments", true},    {"unit", true},  {"no-labels", false},
    {"width", true},      {"output", true, 'o'}, {"quiet", false, 'q'}};

// Column `sample` of `m`, less its mean over the electrodes.
std::vector<double> referenced(const MatrixFile &m, int sample) {
  std::vector<double> v(m.rows);
  double mean = 0;
  for (int r = 0; r < m.rows; r++) mean += (v[r] = m.at(r, sample));
  mean /= m.rows;
  for (double &x : v) x -= mean;
  return v;
}

}  // namespace

Topomap topomap_from_command_line(int argc, char **argv, std::string &out) {
  ParsedArgs args = picture_args(argc, argv, options);
  out = output_path(args);
  std::string elc = required(args, "electrodes"), data_path = required(args, "data");
  PlacedElectrodes el = place_electrodes(elc, head_of_electrodes(args, elc));
  // The spline couples every electrode with every other: its system grows
  // with the cube of their number, and no cap has this many.
  if (el.positions.size() > max_electrodes)
    fail(elc, "line 1", std::to_string(el.positions.size()) + " electrodes; a topography takes at most " +
                            std::to_string(max_electrodes));

  MatrixFile data = read_matrix_file(data_path);
  check_rows(data, data_path, el.positions.size(), elc);
  int sample = chosen_sample(args, data, data_path);

  Topomap t;
  t.electrodes = el.positions;
  t.labels = el.labels;
  t.scalp = el.scalp.vertices;
  t.unit = args.get_or("unit", "V");
  t.show_labels = !args.has("no-labels");
  t.panels.push_back({"measured", referenced(data, sample)});
  std::string files = "data " + base_name(data_path);
  if (auto model_path = args.get("model")) {
    MatrixFile model = read_matrix_file(*model_path);
    check_rows(model, *model_path, el.positions.size(), elc);
    if (model.cols != data.cols)
      fail(*model_path, "",
           "has " + std::to_string(model.cols) + " samples, but " + data_path + " has " + std::to_string(data.cols));
    std::vector<double> m = referenced(model, sample), r(m.size());
    double rr = 0, mm = 0;
    for (size_t e = 0; e < m.size(); e++) {
      r[e] = t.panels[0].values[e] - m[e];
      rr += r[e] * r[e];
      mm += t.panels[0].values[e] * t.panels[0].values[e];
    }
    if (mm > 0) t.relative_difference = std::sqrt(rr / mm);
    t.panels.push_back({"model", m});
    t.panels.push_back({"residual", r});
    files += ", model " + base_name(*model_path);
  }
  if (auto pos_path = args.get("dipoles")) {
    std::vector<SourcePosition> sources = read_position_file(*pos_path);
    std::optional<MatrixFile> moments;
    if (auto mp = args.get("moments")) {
      moments = read_matrix_file(*mp);
      check_moment_rows(*moments, *mp, sources);
      if (moments->cols != data.cols && moments->cols != 1)
        fail(*mp, "",
             "has " + std::to_string(moments->cols) + " samples, but " + data_path + " has " +
                 std::to_string(data.cols));
    }
    int msample = moments && moments->cols == 1 ? 0 : sample;
    if (sources[0].moving) {
      if (!moments) usage_fail("the dipoles of " + *pos_path + " move: give the fit's solution with --moments");
      take_moving_positions(sources, *moments, msample);
    }
    for (size_t k = 0; k < sources.size(); k++)
      t.dipoles.push_back({sources[k].position, dipole_moment(sources, k, moments ? &*moments : nullptr, msample),
                           sources.size() == 1 ? "fit" : "fit " + std::to_string(k + 1)});
    files += ", dipoles " + base_name(*pos_path);
  }
  files += ", electrodes " + base_name(elc);
  auto f = sample_frequency(data);
  t.title = "Potential at sample " + std::to_string(sample + 1) + " of " + std::to_string(data.cols) +
            (f ? " (t = " + format_number(1000.0 * sample / *f, 4) + " ms)" : "") +
            (t.panels.size() > 1 ? ": measured and model" : "");
  t.subtitle = "From " + files + "; average reference, top view.";
  return t;
}

int plot_topomap(int argc, char **argv) {
  if (wants_help(argc, argv)) return show_help(help);
  std::string out;
  Topomap t = topomap_from_command_line(argc, argv, out);
  TopomapLayout layout = topomap_layout(t);
  write_picture(picture_args(argc, argv, options), out, layout.width, layout.height,
                [&](cairo_t *cr) { draw_topomap(cr, t, layout); });
  note("brelix-plot topomap: wrote " + out);
  return 0;
}
