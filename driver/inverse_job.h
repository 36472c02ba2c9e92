// The inverse job: linear estimate, dipole fit and the solution files.
#pragma once

// Runs after the transfer matrix of the sources has been computed; returns
// the exit status of the run.
int inverse_job();
