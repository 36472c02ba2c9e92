#include "driver/input.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "forwinv/ama.h"
#include "forwinv/answer.h"
#include "forwinv/compart.h"
#include "forwinv/electrodes.h"
#include "forwinv/forwinv.h"
#include "forwinv/geo.h"
#include "forwinv/measured.h"
#include "forwinv/sources.h"

void print_help() {
  puts(
      "\nUsage:\nbrelix [-i] [ -f | -d [<value>] ] [filename]\n\nWithout options, brelix will compute en invert "
      "the 'A' matrix\nand solve forward or inverse problems, depending on the\ninteractive input from the "
      "user\n\nIf the '-i' option is used, the 'A' matrix will be computed\nand stored in a file\n\nIf a "
      "filename is supplied (without using the '-i' option),\nthe inverted 'A' matrix is read from the file, "
      "and forward\nor inverse problems, depending on the interactive input from\nthe user\n\n note: If the "
      "\"-i\" is used, \"A\" is completely inverted.\n       This is rather time consuming, but increases the "
      "speed\n       of the subsequent solution of forward and inverse problems.\n       Hence the use of "
      "the \"-i\" option is advised when\n       many forward and inverse calculations have to be\n       "
      "performed on a single geometry configuration.\n\nBy default, brelix will constrain the sources to stay "
      "within\nthe compartment in which their initial estimate was.\nThe '-f' option disables this "
      "constraint, so that the sources\nare free to move to any place inside or outside the volume\nconductor"
      "\nIf the '-c' option is used, brelix will apply an extra\nconstraint on the source position to the "
      "effect that the\nsources must stay inside their initial compartment and at\nleast so far from the "
      "triangles of that compartment that\nthe variation of 1/r^2 over the triangle is less than a "
      "certain\ncriterion (r is the distance from the source to points within\nthe triangle). The default "
      "value of the criterion is 50%, and\nis replaced by the optional value (in %) if given.\n\n");
  exit(1);
}

namespace {

// A file name given on the command line must fit the 80-character buffers;
// a longer one is refused rather than cut to a different name.
void copy_name(char *dest, const char *word) {
  if (strlen(word) >= NAMELEN) {
    fprintf(stderr, "\nFile name too long (at most %d characters): %s\n", NAMELEN - 1, word);
    exit(1);
  }
  strcpy(dest, word);
}

}  // namespace

int parse_options(int argc, char **argv) {
  bool amat = false, bound = false;
  int mode = MODE_COMPUTE;
  for (int i = 1; i < argc; i++) {
    const char *word = argv[i];
    if (word[0] != '-') {
      if (amat) print_help();
      amat = true;
      if (strlen(word) >= NAMELEN || !load_ama(word, 0)) print_help();
      mode = MODE_LOADED_AMA;
      continue;
    }
    switch (tolower((unsigned char)word[1])) {
      case 'i':
        if (amat) print_help();
        amat = true;
        if (++i < argc)
          copy_name(solname, argv[i]);
        else
          ask_or_quit(solname, "File to save inverted A-matrix in: ");
        mode = MODE_STORE_AMA;
        break;
      case 'f':
        if (bound) print_help();
        bound = true;
        bound_func = bound_null;
        break;
      case 'd':
        if (bound) print_help();
        bound = true;
        bound_func = bound_dist;
        if (i + 1 < argc) {
          // Only a following word that starts with a digit is the value;
          // otherwise nothing is scanned and the criterion keeps its value.
          if (isdigit((unsigned char)argv[i + 1][0])) {
            float value;
            i++;
            if (sscanf(argv[i], "%f", &value) == 1) {
              if (!(value >= 0 && value <= 100)) print_help();
              set_bound_crit((float)sqrt(1 - value / 100));
            }
          }
        }
        break;
      default:
        print_help();
    }
  }
  return mode;
}

int get_input_brelix(int argc, char **argv) {
  int mode = parse_options(argc, argv);

  if (mode != MODE_LOADED_AMA) {
    get_geo(1, 0);
    get_elec(nullptr);
    printf("\n");
    if (mode == MODE_STORE_AMA) return mode;
  }
  do {
    ask_or_quit(sourcename, "\nSource position file: ");
  } while (!init_dip(sourcename, &nsource, &source, &constraint));

  psi = get_measured(&sampfreq);
  if (psi) {
    if (constraint == -1) constraint = get_constraint();
    get_nn_nl();
    ask_or_quit(solname, "\nFilename for inverse solution source parameters: ");
    printf("\n");
  } else {
    printf("OK, I will then output the transfer matrix\n");
    ask_or_quit(transname, "Filename for transfer matrix: ");
    printf("\n");
  }
  return mode;
}
