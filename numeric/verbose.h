// Whether the decomposition kernels report their progress (on by default).
#pragma once

extern int verbose;
void set_verbose(int flag);
int is_verbose();
