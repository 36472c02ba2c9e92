// Pictures of brelix-plot at realistic sizes: a 64-electrode topography
// (measured, model, residual) and three sections of a 3 x 2562-vertex head
// through a fitted dipole, each written as a PNG; and the shaded 2x2 head
// sheet.  Each picture should take well under a second.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <string>

#include "plotting/dipole_sections.h"
#include "plotting/figure.h"
#include "plotting/head_view.h"
#include "plotting/topomap.h"
#include "tools/headshape.h"

namespace {

std::vector<Mesh> head() {
  std::vector<Mesh> h;
  for (int l = 0; l < HEAD_LAYERS; l++) h.push_back(as_mesh(head_layer(4, (HeadLayer)l)));
  return h;
}

std::string output() { return "/tmp/bench_plot_" + std::to_string(getpid()) + ".png"; }

void BM_Topomap64(benchmark::State &state) {
  Mesh scalp = as_mesh(head_layer(4, HEAD_SCALP));
  Topomap t;
  // 64 scalp vertices above the ears, spread over the upper head.
  for (size_t v = 0; v < scalp.vertices.size() && t.electrodes.size() < 64; v += 7)
    if (scalp.vertices[v][2] > 0.01) {
      t.electrodes.push_back(scalp.vertices[v]);
      t.labels.push_back("E" + std::to_string(t.electrodes.size()));
    }
  t.scalp = scalp.vertices;
  std::vector<double> measured, model, residual;
  for (const Vec3 &e : t.electrodes) {
    double d = std::hypot(e[0] - 0.02, e[1] - 0.01, e[2] - 0.05);
    measured.push_back((e[2] - 0.05) / (d * d * d) + 0.1 * std::sin(300 * e[0]));
    model.push_back((e[2] - 0.05) / (d * d * d));
    residual.push_back(measured.back() - model.back());
  }
  t.panels = {{"measured", measured}, {"model", model}, {"residual", residual}};
  t.dipoles.push_back({{0.02, 0.01, 0.05}, Vec3{0, 0.3, 1}, "fit"});
  t.title = "benchmark";
  std::string out = output();
  for (auto _ : state) {
    TopomapLayout l = topomap_layout(t);
    write_figure(out, l.width, l.height, [&](cairo_t *cr) { draw_topomap(cr, t, l); });
  }
  remove(out.c_str());
}
BENCHMARK(BM_Topomap64)->Unit(benchmark::kMillisecond);

void BM_DipoleSections3x2562(benchmark::State &state) {
  DipoleSections s;
  s.surfaces = head();
  s.names = {"scalp", "skull", "brain"};
  s.fitted.push_back({{0.02, 0.01, 0.05}, Vec3{0.002, 0.003, 0.002}, Vec3{0, 0.3, 1}, "fit"});
  s.truths.push_back({{0.021, 0.012, 0.048}, std::nullopt, std::nullopt, "true"});
  s.cut = s.fitted[0].position;
  s.title = "benchmark";
  std::string out = output();
  for (auto _ : state) {
    SectionsLayout l = sections_layout(s);
    write_figure(out, l.width, l.height, [&](cairo_t *cr) { draw_sections(cr, s, l); });
  }
  remove(out.c_str());
}
BENCHMARK(BM_DipoleSections3x2562)->Unit(benchmark::kMillisecond);

void BM_HeadSheet3x2562(benchmark::State &state) {
  HeadPicture h;
  h.surfaces = head();
  h.views = {"top", "front", "left", "right"};
  h.title = "benchmark";
  std::string out = output();
  for (auto _ : state) {
    HeadLayout l = head_layout(h);
    write_figure(out, l.width, l.height, [&](cairo_t *cr) { draw_head(cr, h, l); });
  }
  remove(out.c_str());
}
BENCHMARK(BM_HeadSheet3x2562)->Unit(benchmark::kMillisecond);

}  // namespace
BENCHMARK_MAIN();
