// The whole run as a user drives it: command-line words, the answers on
// standard input and up to two files of the input's own making, against a
// folder of small valid model files.  Whatever is typed, the run ends with
// status 0 or 1, never through a crash, out-of-range access or undefined
// behaviour.
//
// Input layout (separated by a line "====="): the first line holds the
// command-line words; the rest of the first part is standard input; the
// second and third parts become the files "x" and "y".  Every '/' in the
// words and answers is replaced by '_', so that whatever name is typed, the
// run reads and writes only inside its own folder.
//
// The real main() runs; a model too large to compute quickly (for a fuzzer)
// ends the run right after the dialogue, through the same exit a quitting
// user takes.
#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "tests/fuzz/fuzz_support.h"
#include "tests/support/h3_bytes.h"
#include "tools/icosphere.h"

#define main brelix_main
#define get_input_brelix gated_input
#include "driver/main.cpp"
#undef get_input_brelix
#undef main

int get_input_brelix(int argc, char **argv);

int gated_input(int argc, char **argv) {
  int mode = get_input_brelix(argc, argv);
  if (totpnt > 150 || nel > 150 || nsource > 4 || (psi && ntim > 4)) exit(0);
  return mode;
}

namespace {

struct Fixture {
  std::string name, bytes;
};
std::vector<Fixture> fixtures;
std::set<std::string> keep;  // names that stay in the folder between runs
std::string folder;

std::string mesh_bytes(const TriMesh &m, bool binary) {
  const char *tmp = memfile(31, nullptr, 0);
  if (!write_trimesh(tmp, m, binary)) abort();
  FILE *f = fopen(tmp, "rb");
  std::string s;
  int c;
  while ((c = getc(f)) != EOF) s += (char)c;
  fclose(f);
  return s;
}

// A binary data file of small whole values.
std::string data_matrix(int rows, int cols, const std::string &tail) {
  std::vector<float> values;
  for (int r = 1; r <= rows; r++)
    for (int c = 1; c <= cols; c++) values.push_back((float)((r * 7 + c * 3) % 11) - 5.0f);
  return matrix_bytes(rows, cols, values, tail);
}

// A text matrix file of one column.
std::string text_matrix(int rows) {
  std::string s = std::to_string(rows) + "\n";
  for (int r = 1; r <= rows; r++) s += r % 2 ? "-1 " : "1\n";
  return s + "\nsample frequency\n100\n";
}

// The model files every run finds in its folder; slot 0 and 1 are "x" and
// "y", the files the input brings.
void make_fixtures() {
  fixtures = {
      {"x", ""},
      {"y", ""},
      {"head.tri", mesh_bytes(icosphere(1, 1.0), false)},
      {"skull.tri", mesh_bytes(icosphere(0, 0.9), true)},
      {"brain.tri", mesh_bytes(icosphere(0, 0.8), false)},
      {"off.tri", mesh_bytes(icosphere(0, 0.3, 0.5, 0, 0), false)},
      {"vert.el", "3\n1 1\n2 5\n3 9\n"},
      {"tri.el", "4\n1 0.2 0.3 !Fz\n5 0.1 0.1\n10 0.3 0.3 !Cz\n20 0.2 0.2\n"},
      {"one.pos", "1\n1 0 0 0.3\n"},
      {"two.pos", "2\n1 0.2 0 0.1\n2 -0.2 0 0.1\n1 position stationary\n2 symmetric to 1\n"},
      {"mov.pos", "1\n1 0 0.1 0.2\n1 position moving\n"},
      {"ori.pos", "1\n1 0 0 0.3\n# orientation only\n1 p st o st\n"},
      {"d42.mat", data_matrix(42, 2, "sample freq\n500\n")},
      {"d12.mat", data_matrix(12, 3, "")},
      {"d3.mat", data_matrix(3, 2, "Sample Frequency\n250 Hz\n")},
      {"d42.asc", text_matrix(42)},
  };
  for (size_t k = 0; k < fixtures.size(); k++) {
    const char *target = memfile((int)k, fixtures[k].bytes);
    std::string link = folder + "/" + fixtures[k].name;
    if (symlink(target, link.c_str()) != 0) {
      perror("symlink");
      abort();
    }
    keep.insert(fixtures[k].name);
  }
}

void remove_folder() {
  DIR *dir = opendir(folder.c_str());
  if (dir) {
    while (dirent *e = readdir(dir))
      if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) unlink((folder + "/" + e->d_name).c_str());
    closedir(dir);
  }
  rmdir(folder.c_str());
}

// Whatever a run wrote into its folder goes; the model files get back their
// contents (a run may have written over them).
void tidy_folder() {
  DIR *dir = opendir(".");
  if (dir) {
    std::vector<std::string> extra;
    while (dirent *e = readdir(dir))
      if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0 && !keep.count(e->d_name))
        extra.push_back(e->d_name);
    closedir(dir);
    for (const auto &n : extra) unlink(n.c_str());
  }
  for (size_t k = 2; k < fixtures.size(); k++) memfile((int)k, fixtures[k].bytes);
}

std::vector<std::string> split(const std::string &s, const std::string &sep) {
  std::vector<std::string> parts;
  size_t from = 0;
  for (;;) {
    size_t at = s.find(sep, from);
    if (at == std::string::npos) {
      parts.push_back(s.substr(from));
      return parts;
    }
    parts.push_back(s.substr(from, at - from));
    from = at + sep.size();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  fuzz_init();
  char tmpl[] = "/tmp/brelix-fuzz-XXXXXX";
  if (!mkdtemp(tmpl)) abort();
  folder = tmpl;
  make_fixtures();
  atexit(remove_folder);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<std::string> parts = split(std::string(reinterpret_cast<const char *>(data), size), "\n=====\n");
  std::string dialogue = parts[0];
  for (char &c : dialogue)
    if (c == '/') c = '_';
  memfile(0, parts.size() > 1 ? parts[1] : std::string());
  memfile(1, parts.size() > 2 ? parts[2] : std::string());

  size_t eol = dialogue.find('\n');
  std::string words = dialogue.substr(0, eol);
  set_stdin(eol == std::string::npos ? std::string() : dialogue.substr(eol + 1));

  // Command-line words: at most six, split at blanks; none may be empty.
  std::vector<std::string> argv_text = {"brelix"};
  for (const std::string &w : split(words, " "))
    if (!w.empty() && w.find('\0') == std::string::npos && argv_text.size() < 7) argv_text.push_back(w);
  std::vector<char *> argv;
  for (auto &w : argv_text) argv.push_back(w.data());
  argv.push_back(nullptr);

  // The run works in its folder (relative names, the scratch file); the
  // fuzzer's own paths are relative to where it was started.
  char home[4096];
  if (!getcwd(home, sizeof home) || chdir(folder.c_str()) != 0) abort();
  int returned = -1;
  int status = catching_exit([&] { returned = brelix_main((int)argv_text.size(), argv.data()); });
  if (status == -1) status = returned;
  fuzz_check(status == 0 || status == 1, "a run ends with status 0 or 1");

  reset_tables();
  tidy_folder();
  if (chdir(home) != 0) abort();
  return 0;
}
