// Instruction-set level of the double-precision vector kernels (the solid
// angles and weights of the system-matrix assembly and their sums): 0
// portable C++, 1 AVX2 with FMA, 2 AVX-512.  Every level gives the same bits;
// the level only changes the speed.  The best level the processor has is
// in force from the start.
#pragma once

// The best level this processor runs.
int double_simd_best();
// The level in force.
int double_simd_level();
// level: the level wanted; one the processor lacks (or a negative one) is
// lowered to the best it has.  Returns the level now in force.
int double_simd_set_level(int level);
