#include "plotting/head_command.h"

#include <cstdio>

#include "cli/args.h"
#include "cli/failure.h"
#include "cli/progress.h"
#include "cli/subcommand.h"
#include "placement/electrode_file.h"
#include "plotting/figure.h"
#include "plotting/head_surfaces.h"
#include "plotting/head_view.h"
#include "plotting/inputs.h"

namespace {

const char *help =
    "usage: brelix-plot head --head DIR [options] -o OUT.png\n"
    "\n"
    "Draws the surfaces of a head model, shaded, seen from outside: the\n"
    "innermost opaque, the outer ones translucent, with the electrodes and\n"
    "their labels on the side facing the viewer.  With --potentials the scalp\n"
    "is coloured by potential (one colour scale, symmetric about zero).\n"
    "\n"
    "options:\n"
    "  --head DIR          head folder: geometry.ans and the triangle files it names\n"
    "  --electrodes E.elc  electrodes to show (brelix's electrode file)\n"
    "  --potentials P.mat  potentials at the scalp's vertices: a matrix file with\n"
    "                      one row per scalp vertex (a forward run whose electrodes\n"
    "                      are the scalp's vertices), or one per vertex of all\n"
    "                      surfaces (electrodes '*'), of which the scalp's are used\n"
    "  --sample N          the column of P.mat to show, from 1 (default 1): a time\n"
    "                      sample, or a dipole component of a transfer matrix\n"
    "  --view V            front, back, left, right or top (default: a sheet of\n"
    "                      top, front, left and right)\n"
    "  --unit U            unit of the potentials (default V)\n"
    "  --no-labels         electrodes without their labels\n"
    "  --width PX          width of the picture in pixels (everything scales)\n"
    "  -o, --output OUT    the picture: .png, .svg or .pdf\n"
    "  -q, --quiet         no note on standard error when it is written\n"
    "\n"
    "example:\n"
    "  brelix-plot head --head head --electrodes electrodes.elc -o head.png\n"
    "  brelix-plot head --head head --potentials scalp_forward.mat --sample 3 \\\n"
    "      --view left -o potential.png\n";

const std::vector<OptionSpec> options = {
    {"head", true}, {"electrodes", true}, {"potentials", true}, {"sample", true},      {"view", true},
    {"unit", true}, {"no-labels", false}, {"width", true},      {"output", true, 'o'}, {"quiet", false, 'q'}};

}  // namespace

int plot_head(int argc, char **argv) {
  if (wants_help(argc, argv)) return show_help(help);
  ParsedArgs args = picture_args(argc, argv, options);
  std::string out = output_path(args);
  HeadPicture h;
  if (auto v = args.get("view")) {
    Camera c;
    if (!camera_of(*v, c)) usage_fail("--view: '" + *v + "' is not one of front, back, left, right, top");
    h.views = {*v};
  } else {
    h.views = {"top", "front", "left", "right"};
  }
  std::string head = required(args, "head");
  std::vector<HeadSurface> surfaces = head_surfaces(head);
  std::string names;
  for (const auto &s : surfaces) {
    h.surfaces.push_back(s.mesh);
    names += (names.empty() ? "" : ", ") + base_name(s.file);
  }
  std::string files = "head " + base_name(head) + " (" + names + ")";
  const Mesh &scalp = h.surfaces[0];
  if (auto elc = args.get("electrodes")) {
    for (const auto &e : read_electrode_file(*elc)) {
      h.electrodes.push_back(electrode_position(e, scalp));
      h.labels.push_back(e.label);
    }
    files += ", electrodes " + base_name(*elc);
  }
  std::string what = "Head model";
  if (auto pp = args.get("potentials")) {
    MatrixFile p = read_matrix_file(*pp);
    size_t all = 0;
    for (const Mesh &m : h.surfaces) all += m.vertices.size();
    if ((size_t)p.rows != scalp.vertices.size() && (size_t)p.rows != all)
      fail(*pp, "",
           "has " + std::to_string(p.rows) + " rows, but the scalp has " + std::to_string(scalp.vertices.size()) +
               " vertices (all surfaces: " + std::to_string(all) + ")");
    int col = chosen_sample(args, p, *pp);
    std::vector<double> v(scalp.vertices.size());
    for (size_t i = 0; i < v.size(); i++) v[i] = p.at((int)i, col);
    h.scalp_potential = v;
    h.unit = args.get_or("unit", "V");
    what = "Scalp potential, column " + std::to_string(col + 1) + " of " + std::to_string(p.cols);
    files += ", potentials " + base_name(*pp);
  }
  h.show_labels = !args.has("no-labels");
  h.title = what + (h.views.size() == 1 ? ", seen from the " + h.views[0] : "");
  h.subtitle = "From " + files + ".";
  HeadLayout layout = head_layout(h);
  write_picture(args, out, layout.width, layout.height, [&](cairo_t *cr) { draw_head(cr, h, layout); });
  note("brelix-plot head: wrote " + out);
  return 0;
}
