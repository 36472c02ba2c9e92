// brelix-prep electrodes: electrode positions (a position file, or a 10-20
// family layout built on the scalp) into a brelix electrode file of triangle
// electrodes on the scalp.
#pragma once

int prep_electrodes(int argc, char **argv);
