#include "driver/extra.h"

#include <cstdio>

#include "forwinv/forwinv.h"

void fill_extra(std::string &text) {
  char line[128];
  text = "brelix output\n";
  text += "Number of compartments:\n";
  snprintf(line, sizeof line, "%d\n", ngeo);
  text += line;
  for (int i = 1; i <= ngeo; i++) {
    snprintf(line, sizeof line, "Name compartment %d:\n", i);
    text += line;
    text += geo[i - 1].name;
    text += "\n";
    snprintf(line, sizeof line, "Conductivity compartment %d:\n", i);
    text += line;
    snprintf(line, sizeof line, "%8.4f\n", geo[i - 1].sigma_in);
    text += line;
  }
  text += "Name dipole file:\n";
  text += sourcename;
  text += "\nName electrode file:\n";
  text += elname;
  text += "\n";
}
