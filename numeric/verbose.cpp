#include "numeric/verbose.h"

int verbose = 1;

void set_verbose(int flag) { verbose = flag; }
int is_verbose() { return verbose; }
