// Scratch folders and small file helpers for tests.
#pragma once

#include <string>

#include "tools/icosphere.h"

// A fresh folder under the system's temporary folder, removed with all its
// contents when the object goes out of scope.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::string &path() const { return path_; }
  std::string file(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

void write_file(const std::string &path, const std::string &contents);
std::string read_file(const std::string &path);
bool file_exists(const std::string &path);

// Write a sphere mesh (from the mesh tool's library) and return its path.
std::string write_sphere(const TempDir &dir, const std::string &name, int level, double radius,
                         bool binary = false, double cx = 0, double cy = 0, double cz = 0);
