// simulate_recording: an EEG recording of known dipoles, as an EDF+ file with
// a marker at the start of every epoch, for demonstrations and tests of the
// way from a recording to a dipole fit.
//
// Each column c of the transfer matrix (a dipole component) gets the time
// course  M_c · sin(2π f_c (t - d_c)) · exp(-(t - d_c) / τ_c)  for t ≥ d_c
// after each marker (0 before), the electrodes the sum of the columns times
// these, plus white Gaussian noise; the same seed gives the same file.
#include <cmath>
#include <cstdio>
#include <random>

#include "cli/args.h"
#include "cli/failure.h"
#include "cli/output.h"
#include "cli/subcommand.h"
#include "placement/electrode_file.h"
#include "recordings/edf_writer.h"
#include "recordings/matrix_file.h"

namespace {

const char *HELP = R"(usage: simulate_recording TRANSFER ELECTRODES OUT.edf --moments M1,...,Mk [options]

Writes an EDF+ recording (channels in microvolts, labelled as the electrode
file labels them) of dipoles whose potentials the brelix transfer matrix
TRANSFER gives (electrodes x k components, in volts per unit moment), with the
annotation MARKER at the start of every epoch.  Column c follows
  M_c sin(2 pi f (t - d)) exp(-(t - d) / tau)   for t >= d after each marker.
Frequency, delay and decay are single values or one per column.

options:
  --moments M1,...,Mk   amplitude of each column (required)
  --frequency HZ        oscillation frequency (default 10)
  --delay S             onset after the marker (default 0.05)
  --decay S             decay time constant tau (default 0.05)
  --sfreq HZ            sample frequency, a whole number (default 500)
  --epochs N            number of epochs (default 20)
  --spacing S           seconds from one marker to the next (default 1)
  --lead S              seconds before the first marker (default 0.5)
  --marker TEXT         the marker's text (default "stim")
  --noise V             standard deviation of the noise in volts (default 0)
  --seed N              seed of the noise (default 1)

example:
  simulate_recording transfer.mat head.elc sim.edf --moments 0,0,1e-8 \
      --noise 1e-7 --epochs 40 --marker stim
)";

// One value per column, from a single value or a list of k.
std::vector<double> per_column(const ParsedArgs &a, const std::string &name, double fallback, size_t k) {
  std::vector<double> v = a.has(name) ? parse_number_list(*a.get(name), "--" + name) : std::vector<double>{fallback};
  if (v.size() == 1) v.assign(k, v[0]);
  if (v.size() != k) usage_fail("--" + name + " needs one value or " + std::to_string(k));
  return v;
}

int simulate(int argc, char **argv) {
  if (wants_help(argc, argv)) {
    fputs(HELP, stdout);
    return 0;
  }
  ParsedArgs a = parse_args(argc, argv, 1,
                            {{"moments", true}, {"frequency", true}, {"delay", true},   {"decay", true},
                             {"sfreq", true},   {"epochs", true},    {"spacing", true}, {"lead", true},
                             {"marker", true},  {"noise", true},     {"seed", true}});
  if (a.positional.size() != 3) usage_fail("give TRANSFER, ELECTRODES and OUT.edf");
  if (!a.has("moments")) usage_fail("--moments is required");
  NumericArray transfer = read_matrix(a.positional[0], nullptr);
  std::vector<ElectrodeEntry> electrodes = read_electrode_file(a.positional[1]);
  if ((size_t)transfer.rows != electrodes.size())
    fail(a.positional[0], "", "has " + std::to_string(transfer.rows) + " rows for the " +
                                  std::to_string(electrodes.size()) + " electrodes of " + a.positional[1]);
  size_t k = (size_t)transfer.cols;
  std::vector<double> moment = parse_number_list(*a.get("moments"), "--moments");
  if (moment.size() != k) usage_fail("--moments needs " + std::to_string(k) + " values, one per transfer column");
  std::vector<double> freq = per_column(a, "frequency", 10, k), delay = per_column(a, "delay", 0.05, k),
                      decay = per_column(a, "decay", 0.05, k);
  double rate = a.number("sfreq").value_or(500), spacing = a.number("spacing").value_or(1),
         lead = a.number("lead").value_or(0.5), noise = a.number("noise").value_or(0);
  double epochs = a.number("epochs").value_or(20), seed = a.number("seed").value_or(1);
  if (!(rate > 0) || !(spacing > 0) || lead < 0 || noise < 0 || epochs < 1 || epochs > 1e5 ||
      epochs != std::floor(epochs) || seed < 0 || seed != std::floor(seed))
    usage_fail("--sfreq and --spacing must be above 0, --lead and --noise not below, --epochs and --seed whole numbers");
  for (double t : decay)
    if (!(t > 0)) usage_fail("--decay must be above 0");
  std::string marker = a.get_or("marker", "stim");

  double length = (lead + epochs * spacing) * rate;
  if (length * (double)(electrodes.size() + k) > 5e8) usage_fail("the recording would be too long to hold in memory");
  long samples = std::lround(length);
  std::vector<EdfAnnotation> markers;
  for (long e = 0; e < (long)epochs; e++) markers.push_back({lead + (double)e * spacing, marker});
  // The source time courses, column by column, at every sample.
  std::vector<std::vector<double>> course(k, std::vector<double>((size_t)samples, 0.0));
  for (size_t c = 0; c < k; c++)
    for (const auto &m : markers)
      for (long i = std::lround((m.onset + delay[c]) * rate); i < samples; i++) {
        double t = (double)i / rate - m.onset - delay[c];
        if (t < 0) continue;
        if (t > spacing) break;
        course[c][(size_t)i] += moment[c] * std::sin(2 * M_PI * freq[c] * t) * std::exp(-t / decay[c]);
      }
  std::mt19937_64 rng((uint64_t)seed);
  std::normal_distribution<double> gauss(0.0, 1.0);
  std::vector<EdfSignal> signals;
  for (size_t e = 0; e < electrodes.size(); e++) {
    EdfSignal s{electrodes[e].label, "uV", std::vector<double>((size_t)samples)};
    for (long i = 0; i < samples; i++) {
      double v = 0;
      for (size_t c = 0; c < k; c++) v += transfer.at((long)e, (long)c) * course[c][(size_t)i];
      s.physical[(size_t)i] = (v + noise * gauss(rng)) * 1e6;
    }
    signals.push_back(std::move(s));
  }
  write_file_atomically(a.positional[2], [&](FILE *fp) {
    try {
      write_edf_plus(fp, signals, rate, markers);
    } catch (const std::invalid_argument &e) {
      fail(a.positional[2], "", e.what());
    }
  });
  printf("%s: %zu channels, %ld samples at %g Hz, %ld epochs marked '%s'\n", a.positional[2].c_str(), signals.size(),
         samples, rate, (long)epochs, marker.c_str());
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  try {
    return simulate(argc, argv);
  } catch (const InputError &e) {
    fprintf(stderr, "simulate_recording: %s\n", e.what());
    return 2;
  }
}
