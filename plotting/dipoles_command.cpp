#include "plotting/dipoles_command.h"

#include <sys/stat.h>

#include <cmath>
#include <cstdio>

#include "cli/args.h"
#include "cli/failure.h"
#include "cli/progress.h"
#include "cli/subcommand.h"
#include "plotting/dipole_sections.h"
#include "plotting/figure.h"
#include "plotting/head_surfaces.h"
#include "plotting/inputs.h"
#include "plotting/text.h"

namespace {

const char *help =
    "usage: brelix-plot dipoles --head DIR --fit FIT.pos [options] -o OUT.png\n"
    "\n"
    "Draws three orthogonal sections (axial, coronal, sagittal) through a\n"
    "fitted dipole: the cut lines of the head's surfaces, the fitted dipoles\n"
    "with their standard deviations as ellipses (one SD in the section's two\n"
    "directions) and their orientation as arrows, and the true dipoles as\n"
    "crosses.  Sections are seen with right, front and up to the right or top;\n"
    "the dashed lines mark the other two sections.\n"
    "\n"
    "options:\n"
    "  --head DIR          head folder: geometry.ans and the triangle files it names\n"
    "  --fit FIT.pos       fitted dipoles: a source position file as brelix writes it\n"
    "  --sd FIT.pos.sd     their standard deviations (default: FIT.pos.sd when it\n"
    "                      exists)\n"
    "  --truth T.pos       true dipoles (a source position file), for simulations\n"
    "  --moments FIT.mat   the fit's moments: the arrows of dipoles with a free\n"
    "                      orientation (rows as brelix writes them); for moving\n"
    "                      dipoles (FIT.pos: the starting file, \"position moving\")\n"
    "                      also their positions, and FIT.mat.sd their deviations\n"
    "  --sample N          the sample of FIT.mat shown, from 1 (default 1)\n"
    "  --dipole K          the fitted dipole the sections pass through (default 1)\n"
    "  --width PX          width of the picture in pixels (everything scales)\n"
    "  -o, --output OUT    the picture: .png, .svg or .pdf\n"
    "  -q, --quiet         no note on standard error when it is written\n"
    "\n"
    "example:\n"
    "  brelix-plot dipoles --head head --fit fit.pos --moments fit.mat \\\n"
    "      --truth truth.pos -o dipoles.png\n";

const std::vector<OptionSpec> options = {{"head", true},        {"fit", true},        {"sd", true},     {"truth", true},
                                         {"moments", true},     {"sample", true},     {"dipole", true}, {"width", true},
                                         {"output", true, 'o'}, {"quiet", false, 'q'}};

bool exists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

std::string triple(const Vec3 &v) {
  return "(" + format_number(v[0], 4) + ", " + format_number(v[1], 4) + ", " + format_number(v[2], 4) + ")";
}

}  // namespace

DipoleSections sections_from_command_line(int argc, char **argv, std::string &out) {
  ParsedArgs args = picture_args(argc, argv, options);
  out = output_path(args);
  std::string head = required(args, "head"), fit_path = required(args, "fit");
  std::vector<HeadSurface> surfaces = head_surfaces(head);
  std::vector<SourcePosition> fit = read_position_file(fit_path);

  std::optional<MatrixFile> moments;
  int sample = 0;
  std::string mp = args.get_or("moments", "");
  if (!mp.empty()) {
    moments = read_matrix_file(mp);
    check_moment_rows(*moments, mp, fit);
    sample = chosen_sample(args, *moments, mp);
  }
  std::vector<SourcePosition> sd;
  std::string sd_path;
  if (fit[0].moving) {
    // A moving fit writes its positions, and their deviations, into the
    // solution and its ".sd" companion.
    if (!moments) usage_fail("the dipoles of " + fit_path + " move: give the fit's solution with --moments");
    take_moving_positions(fit, *moments, sample);
    sd_path = args.get_or("sd", exists(mp + ".sd") ? mp + ".sd" : "");
    if (!sd_path.empty()) {
      MatrixFile m = read_matrix_file(sd_path);
      if (m.rows != moments->rows || m.cols != moments->cols) fail(sd_path, "", "is not of the shape of " + mp);
      sd = fit;
      take_moving_positions(sd, m, sample);
    }
  } else {
    sd_path = args.get_or("sd", exists(fit_path + ".sd") ? fit_path + ".sd" : "");
    if (!sd_path.empty()) {
      sd = read_position_file(sd_path, false);
      if (sd.size() != fit.size())
        fail(sd_path, "line 1",
             std::to_string(sd.size()) + " sources, but " + fit_path + " has " + std::to_string(fit.size()));
    }
  }
  double k = args.number("dipole").value_or(1);
  if (k != std::floor(k) || k < 1 || k > (double)fit.size())
    fail(fit_path, "", "no dipole " + args.get_or("dipole", "1") + ": the file has " + std::to_string(fit.size()));

  DipoleSections s;
  for (const auto &h : surfaces) {
    s.surfaces.push_back(h.mesh);
    s.names.push_back(base_name(h.file));
  }
  for (size_t i = 0; i < fit.size(); i++) {
    SectionDipole d{fit[i].position, std::nullopt, dipole_moment(fit, i, moments ? &*moments : nullptr, sample),
                    "fit " + std::to_string(i + 1)};
    if (!sd.empty()) d.sd = sd[i].position;
    s.fitted.push_back(d);
    std::string line = (fit.size() > 1 ? "fit " + std::to_string(i + 1) + ": " : "fit: ") + triple(fit[i].position);
    if (!sd.empty()) line += "  SD " + triple(sd[i].position);
    s.notes.push_back(line);
  }
  s.focus = (size_t)k - 1;
  s.cut = fit[s.focus].position;
  std::string files = "head " + base_name(head) + ", fit " + base_name(fit_path);
  if (!sd_path.empty()) files += ", SD " + base_name(sd_path);
  if (auto truth_path = args.get("truth")) {
    std::vector<SourcePosition> truth = read_position_file(*truth_path);
    for (size_t i = 0; i < truth.size(); i++) {
      s.truths.push_back({truth[i].position, std::nullopt,
                          truth[i].angles ? std::optional<Vec3>(direction_of_angles(*truth[i].angles)) : std::nullopt,
                          "true " + std::to_string(i + 1)});
      std::string line = "true: " + triple(truth[i].position);
      if (i < fit.size()) {
        const Vec3 &a = truth[i].position, &b = fit[i].position;
        line += "  distance to fit " + std::to_string(i + 1) + ": " +
                format_number(std::hypot(a[0] - b[0], a[1] - b[1], a[2] - b[2]), 3);
      }
      s.notes.push_back(line);
    }
    files += ", truth " + base_name(*truth_path);
  }
  s.title = "Fitted dipole" + std::string(fit.size() > 1 ? "s" : "") + ": sections through " +
            (fit.size() > 1 ? "fit " + std::to_string((int)k) + " " : "") + triple(s.cut);
  s.subtitle = "From " + files + (moments ? ", moments " + base_name(mp) : "") +
               (fit[0].moving ? ", sample " + std::to_string(sample + 1) : "") + ".";
  return s;
}

int plot_dipoles(int argc, char **argv) {
  if (wants_help(argc, argv)) return show_help(help);
  std::string out;
  DipoleSections s = sections_from_command_line(argc, argv, out);
  SectionsLayout layout = sections_layout(s);
  write_picture(picture_args(argc, argv, options), out, layout.width, layout.height,
                [&](cairo_t *cr) { draw_sections(cr, s, layout); });
  note("brelix-plot dipoles: wrote " + out);
  return 0;
}
