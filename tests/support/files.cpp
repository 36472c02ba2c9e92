#include "tests/support/files.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "brelix-test-XXXXXX").string();
  if (!mkdtemp(tmpl.data())) throw std::runtime_error("cannot create a temporary folder");
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

void write_file(const std::string &path, const std::string &contents) {
  std::ofstream f(path, std::ios::binary);
  f << contents;
  if (!f) throw std::runtime_error("cannot write " + path);
}

std::string read_file(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

bool file_exists(const std::string &path) { return std::filesystem::exists(path); }

std::string write_sphere(const TempDir &dir, const std::string &name, int level, double radius, bool binary,
                         double cx, double cy, double cz) {
  std::string path = dir.file(name);
  if (!write_trimesh(path, icosphere(level, radius, cx, cy, cz), binary))
    throw std::runtime_error("cannot write " + path);
  return path;
}
