#include "recordings/mat_file.h"

#include <matio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>

#include "cli/failure.h"
#include "surface/file_bytes.h"

namespace {

// matio reports its failures through a log function; keep the last message
// to put into ours instead of letting it print.
std::string last_matio_message;
void keep_message(int, char *message) { last_matio_message = message ? message : ""; }
void quiet_matio() {
  static bool done = false;
  if (!done) Mat_LogInitFunc("brelix-prep", keep_message);
  done = true;
}

long long file_bytes(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? (long long)st.st_size : 0;
}

struct FileCloser {
  void operator()(mat_t *m) const { Mat_Close(m); }
};
struct VarFreer {
  void operator()(matvar_t *v) const { Mat_VarFree(v); }
};
using MatFile = std::unique_ptr<mat_t, FileCloser>;
using MatVar = std::unique_ptr<matvar_t, VarFreer>;

MatFile open_mat(const std::string &path) {
  quiet_matio();
  FILE *probe = fopen(path.c_str(), "rb");
  if (!probe) fail(path, "", std::string("cannot open: ") + strerror(errno));
  fclose(probe);
  last_matio_message.clear();
  MatFile m(Mat_Open(path.c_str(), MAT_ACC_RDONLY));
  if (!m) fail(path, "", "cannot be read as a MATLAB file" + (last_matio_message.empty() ? "" : " (" + last_matio_message + ")"));
  return m;
}

bool numeric_class(matio_classes c) {
  return c == MAT_C_DOUBLE || c == MAT_C_SINGLE || c == MAT_C_INT8 || c == MAT_C_UINT8 || c == MAT_C_INT16 ||
         c == MAT_C_UINT16 || c == MAT_C_INT32 || c == MAT_C_UINT32;
}

bool usable(const matvar_t *v) { return numeric_class(v->class_type) && v->rank == 2 && !v->isComplex; }

// Element k of the variable's data as a double.
double element(const matvar_t *v, size_t k) {
  switch (v->data_type) {
    case MAT_T_DOUBLE: return ((const double *)v->data)[k];
    case MAT_T_SINGLE: return ((const float *)v->data)[k];
    case MAT_T_INT8: return ((const int8_t *)v->data)[k];
    case MAT_T_UINT8: return ((const uint8_t *)v->data)[k];
    case MAT_T_INT16: return ((const int16_t *)v->data)[k];
    case MAT_T_UINT16: return ((const uint16_t *)v->data)[k];
    case MAT_T_INT32: return ((const int32_t *)v->data)[k];
    case MAT_T_UINT32: return ((const uint32_t *)v->data)[k];
    default: return 0;
  }
}

bool known_type(matio_types t) {
  return t == MAT_T_DOUBLE || t == MAT_T_SINGLE || t == MAT_T_INT8 || t == MAT_T_UINT8 || t == MAT_T_INT16 ||
         t == MAT_T_UINT16 || t == MAT_T_INT32 || t == MAT_T_UINT32;
}

// The name of the file's only usable variable, or an error listing them all.
std::string only_variable(const std::string &path, mat_t *m) {
  std::vector<std::string> all, fit;
  Mat_Rewind(m);
  while (matvar_t *info = Mat_VarReadNextInfo(m)) {
    MatVar v(info);
    all.push_back(v->name ? v->name : "");
    if (usable(v.get())) fit.push_back(all.back());
  }
  if (fit.size() == 1) return fit[0];
  std::string list;
  for (const auto &n : all) list += (list.empty() ? "" : ", ") + n;
  fail(path, "", fit.empty() ? "holds no two-dimensional numeric variable (it holds: " + list + ")"
                             : "holds several numeric variables (" + list + "); name one with --variable");
}

}  // namespace

bool looks_like_mat_file(const std::string &path) { return file_starts_with(path, "MATLAB"); }

NumericArray read_mat_variable(const std::string &path, const std::string &name) {
  MatFile m = open_mat(path);
  std::string wanted = name.empty() ? only_variable(path, m.get()) : name;
  MatVar info(Mat_VarReadInfo(m.get(), wanted.c_str()));
  if (!info) fail(path, "", "holds no variable '" + wanted + "'");
  // matio allocates what the dimensions say before it finds the data
  // missing; no stream compressed by zlib shrinks below 1/1032 of its size.
  if (info->rank == 2 && info->dims) {
    double bytes = (double)info->dims[0] * (double)info->dims[1] * (info->data_size > 0 ? info->data_size : 1);
    if (bytes > 1032.0 * (double)file_bytes(path) + 4096)
      fail(path, "variable " + wanted, "its dimensions " + std::to_string(info->dims[0]) + " x " +
                                           std::to_string(info->dims[1]) + " need more data than the file holds");
  }
  MatVar v(Mat_VarRead(m.get(), wanted.c_str()));
  if (!v) fail(path, "variable " + wanted, "cannot be read");
  if (!usable(v.get()) || !v->dims)
    fail(path, "variable " + wanted, "is not a real two-dimensional numeric array");
  if (!known_type(v->data_type) || (!v->data && v->dims[0] * v->dims[1] > 0))
    fail(path, "variable " + wanted, "holds numbers of a kind that cannot be read");
  // matio may hand out fewer bytes than the dimensions call for.
  if (v->data_size <= 0 || v->nbytes / (size_t)v->data_size < v->dims[0] * v->dims[1])
    fail(path, "variable " + wanted, "holds fewer numbers than its dimensions say");
  NumericArray a;
  a.rows = (long)v->dims[0];
  a.cols = (long)v->dims[1];
  a.values.resize((size_t)(a.rows * a.cols));
  // MATLAB stores columns one after the other.
  for (long r = 0; r < a.rows; r++)
    for (long c = 0; c < a.cols; c++) a.values[(size_t)(r * a.cols + c)] = element(v.get(), (size_t)(c * a.rows + r));
  return a;
}

std::string read_mat_text(const std::string &path, const std::string &name) {
  MatFile m = open_mat(path);
  MatVar v(Mat_VarRead(m.get(), name.c_str()));
  if (!v || v->class_type != MAT_C_CHAR || !v->data) return "";
  if (v->rank != 2 || !v->dims) return "";
  bool wide = v->data_type == MAT_T_UINT16 || v->data_type == MAT_T_UTF16 || v->data_type == MAT_T_INT16;
  // No more characters than the bytes matio handed out hold.
  size_t n = std::min(v->dims[0] * v->dims[1], v->nbytes / (wide ? 2 : 1));
  std::string text;
  for (size_t k = 0; k < n; k++) {
    unsigned code = wide ? ((const uint16_t *)v->data)[k] : ((const uint8_t *)v->data)[k];
    text += code < 256 ? (char)code : '?';
  }
  return text;
}

void write_mat(FILE *fp, const std::string &near, const NumericArray &a, const std::string &name,
               const std::string &text, const std::string &text_name, bool v73) {
  quiet_matio();
  std::string tmp = near + ".matio-XXXXXX";
  int fd = mkstemp(tmp.data());
  if (fd < 0) fail(near, "", std::string("cannot write: ") + strerror(errno));
  close(fd);
  struct Remover {
    std::string path;
    ~Remover() { unlink(path.c_str()); }
  } remover{tmp};

  last_matio_message.clear();
  bool ok = false;
  {
    MatFile m(Mat_CreateVer(tmp.c_str(), nullptr, v73 ? MAT_FT_MAT73 : MAT_FT_MAT5));
    if (m) {
      std::vector<float> column_major((size_t)(a.rows * a.cols));
      for (long r = 0; r < a.rows; r++)
        for (long c = 0; c < a.cols; c++) column_major[(size_t)(c * a.rows + r)] = (float)a.at(r, c);
      size_t dims[2] = {(size_t)a.rows, (size_t)a.cols};
      MatVar v(Mat_VarCreate(name.c_str(), MAT_C_SINGLE, MAT_T_SINGLE, 2, dims, column_major.data(), MAT_F_DONT_COPY_DATA));
      ok = v && Mat_VarWrite(m.get(), v.get(), MAT_COMPRESSION_NONE) == 0;
      if (ok && !text.empty()) {
        size_t tdims[2] = {1, text.size()};
        MatVar t(Mat_VarCreate(text_name.c_str(), MAT_C_CHAR, MAT_T_UINT8, 2, tdims, (void *)text.data(),
                               MAT_F_DONT_COPY_DATA));
        ok = t && Mat_VarWrite(m.get(), t.get(), MAT_COMPRESSION_NONE) == 0;
      }
    }
  }
  if (!ok)
    fail(near, "", "cannot write the MATLAB file" + (last_matio_message.empty() ? "" : " (" + last_matio_message + ")"));
  std::string bytes = read_file_bytes(tmp);
  fwrite(bytes.data(), 1, bytes.size(), fp);
}
