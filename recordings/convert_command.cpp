#include "recordings/convert_command.h"

#include <cstdio>

#include "cli/args.h"
#include "cli/failure.h"
#include "cli/output.h"
#include "cli/progress.h"
#include "cli/subcommand.h"
#include "recordings/delimited_text.h"
#include "recordings/mat_file.h"
#include "recordings/matrix_file.h"
#include "recordings/npy_file.h"

namespace {

const char *HELP = R"(usage: brelix-prep convert IN OUT [options]

Converts brelix matrix files (transfer matrices, fitted parameters, model
potentials, measured data) to the formats numpy, MATLAB and spreadsheets read,
and back.  A matrix file's rows stay rows and its columns columns.

Formats, by the file's contents for IN and by OUT's name:
  brelix matrix file   binary counts, single-precision values, text tail
  .csv / .tsv          one row per line, comma / tab separated, no header
  .npy                 NumPy 2-D array (written as float32; read: float32,
                       float64, int16, int32, either byte order, C or Fortran)
  .mat                 MATLAB v5 (or v7.3 with --v73), the array in variable
                       "data" (see --variable) and the matrix file's tail, if
                       any, in the character variable "tail"
OUT is a brelix matrix file when its name ends in none of these suffixes.
An OUT ending in .mat is a MATLAB file unless IN is one already: then it is
a brelix matrix file (brelix's matrix files are often named .mat too).
--to overrides OUT's name.

options:
  --to FORMAT        matrix, csv, tsv, npy or mat: the output's format
  --variable NAME    the MATLAB variable to read or write (default: "data" on
                     writing; the file's only numeric variable on reading)
  --v73              write MATLAB files in the HDF5-based version 7.3
  --quiet            no notes on standard error

examples:
  brelix-prep convert transfer.mat transfer.npy
  brelix-prep convert fit.mat fit.csv
  brelix-prep convert data_from_matlab.mat data.bin --variable eeg
  brelix-prep convert potentials.npy potentials.mat --to matrix
)";

enum class Format { Matrix, Csv, Tsv, Npy, Mat };

Format format_named(const std::string &name) {
  if (name == "matrix") return Format::Matrix;
  if (name == "csv") return Format::Csv;
  if (name == "tsv") return Format::Tsv;
  if (name == "npy") return Format::Npy;
  if (name == "mat") return Format::Mat;
  usage_fail("--to: '" + name + "' is none of matrix, csv, tsv, npy, mat");
}

// The format of an existing input: by content where the formats say who they
// are, by suffix for text tables.
Format input_format(const std::string &path) {
  if (looks_like_mat_file(path)) return Format::Mat;
  if (file_starts_with(path, "\x93NUMPY")) return Format::Npy;
  std::string s = lower_suffix(path);
  if (s == ".csv") return Format::Csv;
  if (s == ".tsv") return Format::Tsv;
  return Format::Matrix;
}

// brelix's own matrix files are often named .mat too, so that suffix means
// MATLAB only when the input is not MATLAB already.
Format output_format(const std::string &path, Format in) {
  std::string s = lower_suffix(path);
  if (s == ".mat") return in == Format::Mat ? Format::Matrix : Format::Mat;
  if (s == ".csv") return Format::Csv;
  if (s == ".tsv") return Format::Tsv;
  if (s == ".npy") return Format::Npy;
  return Format::Matrix;
}

// brelix's matrix files count rows and columns in 32-bit words and its reader
// takes no more than a thousand million values.
void check_fits_matrix_file(const NumericArray &a, const std::string &path) {
  if (a.rows > 0x7fffffff || a.cols > 0x7fffffff || (double)a.rows * (double)a.cols > 1e9)
    fail(path, "", "holds " + std::to_string(a.rows) + " x " + std::to_string(a.cols) +
                       " values, more than a brelix matrix file can");
}

}  // namespace

int prep_convert(int argc, char **argv) {
  if (wants_help(argc, argv)) {
    fputs(HELP, stdout);
    return 0;
  }
  ParsedArgs a = parse_args(argc, argv, 1, {{"to", true}, {"variable", true}, {"v73", false}, {"quiet", false}});
  if (a.positional.size() != 2) usage_fail("give IN and OUT");
  set_quiet(a.has("quiet"));
  const std::string in = a.positional[0], out = a.positional[1];
  Format from = input_format(in);
  Format to = a.has("to") ? format_named(*a.get("to")) : output_format(out, from);

  std::string tail;
  NumericArray m;
  switch (from) {
    case Format::Matrix: m = read_matrix(in, &tail); break;
    case Format::Csv:
    case Format::Tsv: m = read_text_table(in, false).numbers; break;
    case Format::Npy: m = read_npy(in); break;
    case Format::Mat:
      m = read_mat_variable(in, a.get_or("variable", ""));
      tail = read_mat_text(in, "tail");
      break;
  }
  if (to == Format::Matrix) check_fits_matrix_file(m, in);
  write_file_atomically(out, [&](FILE *fp) {
    switch (to) {
      case Format::Matrix: write_matrix(fp, m, tail); break;
      case Format::Csv: write_text_table(fp, m, ','); break;
      case Format::Tsv: write_text_table(fp, m, '\t'); break;
      case Format::Npy: write_npy(fp, m); break;
      case Format::Mat: write_mat(fp, out, m, a.get_or("variable", "data"), tail, "tail", a.has("v73")); break;
    }
  });
  note("wrote " + out + ": " + std::to_string(m.rows) + " x " + std::to_string(m.cols));
  return 0;
}
