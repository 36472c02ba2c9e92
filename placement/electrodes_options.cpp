#include "placement/electrodes_options.h"

#include "cli/args.h"
#include "cli/failure.h"

const char *const electrodes_help =
    "usage: brelix-prep electrodes --scalp HEAD POSITIONS -o FILE [options]\n"
    "       brelix-prep electrodes --scalp HEAD --system 10-20 --fiducials FILE\n"
    "                                  -o FILE [options]\n"
    "\n"
    "Places electrodes on the scalp (the outermost surface) and writes them as a\n"
    "brelix electrode file: one line \"<triangle> <u> <v> !label\" per electrode,\n"
    "the triangle counted from 1, the point (1-u-v)*a + u*b + v*c of its corners,\n"
    "labels of at most 10 characters, in the order of the position file.  Each\n"
    "electrode goes to its closest point on the scalp; the displacements are\n"
    "reported.  Fiducials (nasion, LPA, RPA, inion) are not written.  Give brelix\n"
    "the scalp as its first interface.\n"
    "\n"
    "POSITIONS, by suffix: .elc (NumberPositions/UnitPosition/Positions/Labels),\n"
    ".sfp .txt .csv .tsv (label x y z, optional header row), .elp .bvef (theta,\n"
    "phi in degrees, optional radius), .loc .locs (number, angle, radius, label).\n"
    "Frame: x to the right ear, y to the nose, z up.\n"
    "\n"
    "options:\n"
    "  --scalp HEAD        head folder (or its geometry.ans) whose first surface is\n"
    "                      the scalp, or a surface file.  Example: --scalp head\n"
    "  -o, --output FILE   electrode file to write.  Example: -o cap.elc\n"
    "  --units U           unit of every position file given (POSITIONS and\n"
    "                      --fiducials): mm, cm, m, or auto (default: the unit the\n"
    "                      file states, else chosen from its size).\n"
    "                      Example: --units mm\n"
    "  --transform FILE    4x4 affine matrix (rows of four numbers) taking the\n"
    "                      positions, in their own units, into the head's frame.\n"
    "                      Example: --transform digitiser_to_head.txt\n"
    "  --fiducials FILE    the landmarks on the head model, lines of label x y z:\n"
    "                      Nz (or Nasion), LPA, RPA, and Iz (or Inion) for --system.\n"
    "                      With POSITIONS, the same landmarks in the position file\n"
    "                      are fitted to these (least squares, rigid), and the\n"
    "                      residuals and transform are reported.\n"
    "                      Example: --fiducials head_fiducials.txt\n"
    "  --scale             let the fiducial fit scale the positions too (needed for\n"
    "                      layouts on a unit sphere).  Example: --scale\n"
    "  --icp               after the fiducial fit, move the electrode cloud rigidly\n"
    "                      until it lies on the scalp as closely as it can\n"
    "                      (iterative closest points).  Example: --icp\n"
    "  --nasion NAME, --lpa NAME, --rpa NAME, --inion NAME\n"
    "                      another label for a landmark, in both files; such\n"
    "                      points stay electrodes too (Nz, LPA and the like do not).\n"
    "                      Example: --lpa A1 --rpa A2\n"
    "  --system S          no position file: build the 10-20, 10-10 or 10-5 layout\n"
    "                      on the scalp itself, from --fiducials, by proportional\n"
    "                      distances along arcs of the scalp.\n"
    "                      Example: --system 10-10\n"
    "  --labels L1,L2,...  write only these electrodes, in this order.\n"
    "                      Example: --labels Fz,Cz,Pz,Oz\n"
    "  --drop L1,L2,...    leave these electrodes out.  Example: --drop EOG1,EOG2\n"
    "  --max-distance MM   refuse electrodes farther than this from the scalp\n"
    "                      (default 10); the refusal lists them.\n"
    "                      Example: --max-distance 15\n"
    "  --quiet             no report on standard output.\n"
    "\n"
    "example:\n"
    "  brelix-prep electrodes --scalp head cap.elc --fiducials head_fid.txt --icp \\\n"
    "      -o cap_on_head.elc\n"
    "  brelix-prep electrodes --scalp head --system 10-10 --fiducials head_fid.txt \\\n"
    "      -o ten10.elc\n";

namespace {

std::vector<std::string> split_list(const std::string &text) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    if (comma > start) out.push_back(text.substr(start, comma - start));
    start = comma + 1;
  }
  return out;
}

}  // namespace

ElectrodesOptions parse_electrodes_options(int argc, char **argv) {
  const ParsedArgs a = parse_args(argc, argv, 1,
                                  {{"scalp", true},      {"output", true, 'o'}, {"units", true},  {"transform", true},
                                   {"fiducials", true},  {"system", true},      {"scale", false}, {"icp", false},
                                   {"nasion", true},     {"lpa", true},         {"rpa", true},    {"inion", true},
                                   {"labels", true},     {"drop", true},        {"max-distance", true},
                                   {"quiet", false}});
  ElectrodesOptions o;
  o.scalp = a.get_or("scalp", "");
  o.output = a.get_or("output", "");
  o.units = a.get_or("units", "auto");
  o.transform = a.get_or("transform", "");
  o.fiducials = a.get_or("fiducials", "");
  o.system = a.get_or("system", "");
  o.scale = a.has("scale");
  o.icp = a.has("icp");
  o.quiet = a.has("quiet");
  if (auto d = a.number("max-distance")) o.max_distance_mm = *d;
  o.keep = split_list(a.get_or("labels", ""));
  o.drop = split_list(a.get_or("drop", ""));
  const char *const landmark_option[LANDMARKS] = {"nasion", "lpa", "rpa", "inion"};
  for (int k = 0; k < LANDMARKS; k++)
    if (auto it = a.values.find(landmark_option[k]); it != a.values.end())
      for (const std::string &n : it->second) o.names.names[k].push_back(n);

  if (o.scalp.empty()) usage_fail("--scalp is required");
  if (o.output.empty()) usage_fail("-o FILE is required");
  if (a.positional.size() > 1) usage_fail("one position file at most");
  if (!a.positional.empty()) o.positions = a.positional[0];
  if (!o.system.empty()) {
    if (!o.positions.empty()) usage_fail("--system builds the layout itself: no position file with it");
    if (o.fiducials.empty()) usage_fail("--system needs --fiducials (nasion, inion, LPA and RPA on the scalp)");
    if (!o.transform.empty() || o.icp || o.scale) usage_fail("--transform, --scale and --icp apply to a position file");
  } else if (o.positions.empty()) {
    usage_fail("give a position file, or --system with --fiducials");
  }
  if (!o.transform.empty() && !o.fiducials.empty()) usage_fail("--transform or --fiducials, not both");
  if ((o.icp || o.scale) && o.fiducials.empty()) usage_fail("--icp and --scale refine the fit to --fiducials");
  if (!(o.max_distance_mm > 0)) usage_fail("--max-distance must be positive");
  return o;
}
