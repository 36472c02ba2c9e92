#include "headmodel/head_options.h"

#include <cmath>

#include "cli/args.h"
#include "cli/failure.h"
#include "cli/progress.h"

const char *const head_help =
    "usage: brelix-prep head [options] OUTER ... INNER -o DIR\n"
    "\n"
    "Imports up to ten nested closed surfaces, given from the outermost to the\n"
    "innermost, checks them, repairs what can safely be repaired and writes a\n"
    "head model brelix reads: DIR/1_NAME.tri ... (text triangle files, metres,\n"
    "triangles clockwise seen from outside), DIR/geometry.ans (the answers to\n"
    "brelix's geometry questions) and DIR/report.txt (what was read, changed and\n"
    "checked).  Nothing is written unless every check passes.  Then\n"
    "    cat DIR/geometry.ans rest.ans | brelix\n"
    "runs from the folder brelix-prep was run in.\n"
    "\n"
    "Surface formats: FreeSurfer binary and ASCII (.asc), OFF, OBJ, STL (text\n"
    "and binary), PLY (text and binary), VTK legacy POLYDATA, GIfTI (.gii),\n"
    "brelix triangle files, and the BEM toolbox's text .tri layout.\n"
    "\n"
    "options:\n"
    "  -o, --output DIR    folder to write into (created if missing); brelix\n"
    "                      reads answers of at most 79 characters, so DIR must\n"
    "                      be short.  Example: -o head\n"
    "  --units U           units of the input: mm, cm, m, or auto (default: from\n"
    "                      the size of the outermost surface, reported).  The\n"
    "                      output is always in metres.  Example: --units mm\n"
    "  --transform FILE    apply the 4x4 affine matrix in FILE (four rows of four\n"
    "                      numbers, input units) before anything else.\n"
    "                      Example: --transform head_to_electrodes.txt\n"
    "  --sigma S1,S2,...   conductivity just within each surface, S/m, outermost\n"
    "                      first.  Defaults: one surface 0.33; three surfaces\n"
    "                      0.33,0.0042,0.33 (scalp, skull, brain); four surfaces\n"
    "                      0.33,0.0042,1.79,0.33 (scalp, skull, CSF, brain);\n"
    "                      other counts must give it.  Example: --sigma 0.33,0.0042,0.33\n"
    "  --isolated          mark the innermost surface as brelix's isolated source\n"
    "                      interface ('!' in geometry.ans).  Default for three or\n"
    "                      more surfaces when the second is at least ten times\n"
    "                      less conductive than the innermost.  Example: --isolated\n"
    "  --no-isolated       do not mark it even then.  Example: --no-isolated\n"
    "  --min-gap MM        smallest allowed distance between neighbouring\n"
    "                      surfaces, millimetres (default 2).  Example: --min-gap 3\n"
    "  --fix-gap           move the parts of an inner surface that come closer\n"
    "                      than --min-gap to, or cross, the surface outside it\n"
    "                      inwards, smoothly.  Example: --fix-gap\n"
    "  --fill-holes        close holes with smooth patches instead of refusing\n"
    "                      the surface.  Example: --fill-holes\n"
    "  --no-orient         refuse triangles that turn the wrong way instead of\n"
    "                      flipping them.  Example: --no-orient\n"
    "  --no-weld           refuse duplicate vertices instead of merging them.\n"
    "                      Example: --no-weld\n"
    "  --vertices N[,N2..] remesh every surface (or each, outermost first) to\n"
    "                      about N vertices with well-shaped triangles.\n"
    "                      Example: --vertices 2562 or --vertices 2562,2562,1922\n"
    "  --edge MM           remesh to triangles with edges of about MM\n"
    "                      millimetres instead.  Example: --edge 6\n"
    "  --quiet             print nothing but errors.  Example: --quiet\n"
    "\n"
    "example:\n"
    "    brelix-prep head outer_skin.surf outer_skull.surf inner_skull.surf \\\n"
    "        --vertices 2562 --fix-gap -o head\n";

namespace {

std::vector<double> default_sigma(size_t surfaces) {
  switch (surfaces) {
    case 1: return {0.33};
    case 3: return {0.33, 0.0042, 0.33};
    case 4: return {0.33, 0.0042, 1.79, 0.33};
    default: return {};
  }
}

}  // namespace

HeadOptions parse_head_options(int argc, char **argv) {
  const ParsedArgs args = parse_args(argc, argv, 1,
                                     {{"output", true, 'o'},
                                      {"units", true},
                                      {"transform", true},
                                      {"sigma", true},
                                      {"isolated", false},
                                      {"no-isolated", false},
                                      {"min-gap", true},
                                      {"fix-gap", false},
                                      {"fill-holes", false},
                                      {"no-orient", false},
                                      {"no-weld", false},
                                      {"vertices", true},
                                      {"edge", true},
                                      {"quiet", false}});
  HeadOptions o;
  o.surfaces = args.positional;
  const size_t n = o.surfaces.size();
  if (n == 0) usage_fail("no surface given");
  if (n > 10) usage_fail("at most ten surfaces, " + std::to_string(n) + " given");
  o.out_dir = args.get_or("output", "");
  if (o.out_dir.empty()) usage_fail("no output folder given (-o DIR)");
  o.units = args.get_or("units", "auto");
  if (o.units != "mm" && o.units != "cm" && o.units != "m" && o.units != "auto")
    usage_fail("--units: '" + o.units + "' is none of mm, cm, m, auto");
  o.transform_file = args.get_or("transform", "");

  o.sigma = args.has("sigma") ? parse_number_list(*args.get("sigma"), "--sigma") : default_sigma(n);
  if (o.sigma.empty()) usage_fail("--sigma is needed for " + std::to_string(n) + " surfaces");
  if (o.sigma.size() != n)
    usage_fail("--sigma gives " + std::to_string(o.sigma.size()) + " conductivities for " + std::to_string(n) +
               " surfaces");
  for (double s : o.sigma)
    if (!(s > 0)) usage_fail("--sigma: conductivities must be positive");
  if (args.has("isolated") && args.has("no-isolated")) usage_fail("--isolated and --no-isolated contradict");
  // A poorly conducting skull makes the plain method inaccurate for sources
  // near it; the isolated-source approach corrects for that.
  o.isolated = args.has("isolated") || (!args.has("no-isolated") && n >= 3 && o.sigma[1] * 10 <= o.sigma[n - 1]);

  const double gap_mm = args.number("min-gap").value_or(2.0);
  if (gap_mm < 0) usage_fail("--min-gap must not be negative");
  o.min_gap = gap_mm / 1000;
  o.fix_gap = args.has("fix-gap");
  o.repair.fill_holes = args.has("fill-holes");
  o.repair.orient = !args.has("no-orient");
  o.repair.weld = !args.has("no-weld");

  if (args.has("vertices") && args.has("edge")) usage_fail("--vertices and --edge exclude each other");
  if (args.has("vertices")) {
    const auto counts = parse_number_list(*args.get("vertices"), "--vertices");
    if (counts.size() != 1 && counts.size() != n)
      usage_fail("--vertices gives " + std::to_string(counts.size()) + " counts for " + std::to_string(n) +
                 " surfaces");
    for (size_t k = 0; k < n; k++) {
      const double c = counts.size() == 1 ? counts[0] : counts[k];
      if (c != std::floor(c) || c < 12 || c > 1000000) usage_fail("--vertices: counts are whole numbers from 12 to 1000000");
      o.remesh.push_back({(long)c, 0});
    }
  }
  if (args.has("edge")) {
    const double e = *args.number("edge");
    if (!(e > 0)) usage_fail("--edge must be positive");
    o.remesh.assign(n, RemeshTarget{0, e / 1000});
  }
  set_quiet(args.has("quiet"));
  return o;
}
