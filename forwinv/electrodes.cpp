// Electrodes: the electrode-file dialogue and the potential at an electrode.
#include "forwinv/electrodes.h"

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "forwinv/answer.h"
#include "numeric/nrutils.h"

namespace {

constexpr int LINELEN = 160;  // electrode file lines are read up to this size

// Electrode table of n records plus the unused record 0, zero-filled.
Electrode *alloc_electrodes(long long n) {
  Electrode *e = static_cast<Electrode *>(calloc((size_t)n + 1, sizeof(Electrode)));
  if (!e) error("cannot allocate electrode array");
  return e;
}

// Copy the text after '!' into label: at most 10 characters, without the end
// of the line.  The record's 12 bytes stay zero beyond the text.
void take_label(char *label, const char *line) {
  const char *mark = strchr(line, '!');
  if (!mark) return;
  strncpy(label, mark + 1, 10);
  label[10] = '\0';
  size_t len = strlen(label);
  if (len > 0 && label[len - 1] == '\n') label[len - 1] = '\0';
}

// Outcome of reading one electrode file.
enum class ReadResult { ok, unusable };

// Read the open electrode file fp into el / nel / elec_vertex.  A fault in
// the layout gives `unusable` (the caller asks for another file); electrodes
// that point outside the model are fatal.
ReadResult read_electrode_file(FILE *fp) {
  char line[LINELEN];
  int count;
  if (!fgets(line, LINELEN, fp) || sscanf(line, "%d", &count) != 1 || count < 1) return ReadResult::unusable;

  // Each electrode line holds at least two numbers and a separator (three
  // characters) and all but the last end in a newline: a count the file
  // cannot hold is refused before the table is allocated.
  long after_first = ftell(fp);
  if (after_first < 0 || fseek(fp, 0, SEEK_END) != 0) return ReadResult::unusable;
  long size = ftell(fp);
  if (size < 0 || fseek(fp, after_first, SEEK_SET) != 0) return ReadResult::unusable;
  if ((long long)count * 4 - 1 > (long long)size - after_first) return ReadResult::unusable;

  Electrode *table = alloc_electrodes(count);

  // The second line decides the form of every electrode line.
  float x, y, z;
  bool triangles = fgets(line, LINELEN, fp) && sscanf(line, "%f%f%f", &x, &y, &z) >= 3;

  rewind(fp);
  bool good = fgets(line, LINELEN, fp) != nullptr;
  for (int e = 1; good && e <= count; e++) {
    if (!fgets(line, LINELEN, fp)) {
      good = false;
      break;
    }
    if (triangles) {
      int tri;
      float u, v;
      // A point given by coordinates that are not numbers cannot be
      // interpolated: such a line is as unreadable as a missing one.
      if (sscanf(line, "%d%f%f", &tri, &u, &v) != 3 || !std::isfinite(u) || !std::isfinite(v)) {
        good = false;
        break;
      }
      if (tri > totdhk) error("Electrode file refers to non-existent triangles");
      // No lower bound: number 0 is stored as -1 (the lowest number stays
      // as it is rather than wrap); elval refuses negative indices.
      table[e].index = tri > INT_MIN ? tri - 1 : INT_MIN;
      table[e].u = u;
      table[e].v = v;
      take_label(table[e].label, line);
    } else {
      int running, vertex;
      if (sscanf(line, "%d%d", &running, &vertex) != 2) {
        good = false;
        break;
      }
      // Vertex numbers index the potential vectors directly.
      if (vertex < 1 || vertex > totpnt) error("Electrode file refers to non-existent vertices");
      table[e].index = vertex;
    }
  }
  if (!good) {
    free(table);
    return ReadResult::unusable;
  }
  el = table;
  nel = count;
  elec_vertex = triangles ? 0 : 1;
  return ReadResult::ok;
}

}  // namespace

// name: a file name to try before asking, or null to ask at once.
// On output elname holds the answer, el[1..nel] the electrodes (el[0] zero),
// elec_vertex tells vertex from triangle electrodes, and surfelec is cleared
// when the electrodes are not all on the first, outermost interface.
void get_elec(const char *name) {
  if (name) {
    strncpy(elname, name, NAMELEN - 1);
    elname[NAMELEN - 1] = '\0';
  } else {
    ask(elname, "\nElectrode file: ");
  }

  bool from_file = false;
  while (elname[0] != '\0' && strcmp(elname, "*") != 0) {
    FILE *fp = fopen(elname, "r");
    if (!fp) {
      printf("\n Error opening %s; please try another filename.\n\n\a", elname);
      ask(elname, "\nElectrode file: ");
      continue;
    }
    ReadResult r = read_electrode_file(fp);
    fclose(fp);
    if (r == ReadResult::ok) {
      from_file = true;
      break;
    }
    ask(elname, "\nElectrode file: ");
  }

  if (!from_file) {
    int count;
    if (elname[0] == '\0') {
      printf("All vertices of first interface are electrodes\n");
      count = geo[0].npnt;
    } else {
      printf("All vertices of all interfaces are electrodes\n");
      count = totpnt;
    }
    Electrode *table = alloc_electrodes(count < 0 ? 0 : count);
    for (int e = 1; e <= count; e++) table[e].index = e;
    el = table;
    nel = count;
    elec_vertex = 1;
  }

  // Reflation can be skipped only while every electrode lies on interface
  // 0 and that interface is the outermost one.
  int bound = elec_vertex ? geo[0].npnt + 1 : geo[0].ndhk;
  for (int e = 1; e <= nel; e++)
    if (el[e].index >= bound) surfelec = 0;
  for (int j = 1; j < ngeo; j++)
    if (geocon[0][j] != 0) surfelec = 0;
  if (iso_sur == 0) surfelec = 0;
}

// e: electrode number 1..nel; phi[1..totpnt]: vertex potentials.
// Returns the potential at the electrode: the vertex value, or the linear
// interpolation over the electrode's triangle.  Triangle vertices are taken
// as numbers in the first interface's range of phi, whichever interface
// holds the triangle.
double elval(int e, const float *phi) {
  const Electrode &el_e = el[e];
  if (elec_vertex) {
    if (el_e.index < 1 || el_e.index > totpnt) error("Electrode at non-existing vertex in elval.");
    return phi[el_e.index];
  }
  int t = el_e.index;
  if (t < 0) error("Electrode at non-existing triangle in elval.");
  int g = 0;
  while (g < ngeo && t >= geo[g].ndhk) t -= geo[g++].ndhk;
  if (g >= ngeo) error("Electrode at non-existing triangle in elval.");
  const int32_t *tri = geo[g].dhk[t];
  for (int k = 0; k < 3; k++)
    if (tri[k] < 0 || tri[k] + 1 > totpnt) error("Electrode at non-existing triangle in elval.");
  float u = el_e.u, v = el_e.v;
  return (1 - u - v) * phi[tri[0] + 1] + u * phi[tri[1] + 1] + v * phi[tri[2] + 1];
}
