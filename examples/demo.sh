#!/usr/bin/env bash
# The bundled example: a three-shell sphere head (scalp, skull, brain) with
# 19 electrodes in a 10-20-like layout and two dipoles.  It runs
#   1. a forward job that writes the transfer matrix,
#   2. an -i job that stores the inverted A matrix in head.ama,
#   3. a job that loads head.ama and writes the transfer matrix again,
#   4. an inverse job: a dipole fitted to simulated data, next to the true one,
# each scripted by an answer file on standard input, and shows what they wrote;
# then, when brelix-plot was built, draws the fit (topomap.png, dipoles.png)
# and the head with its electrodes (head.png).
set -euo pipefail
BUILD=${1:-build}
HERE=$(cd "$(dirname "$0")" && pwd)
BIN=$(cd "$BUILD" && pwd)
WORK="$BIN/demo"
rm -rf "$WORK" && mkdir -p "$WORK" && cd "$WORK"
cp "$HERE"/head/*.pos "$HERE"/head/*.ans .

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }

step "Making the head model with the mesh tool (642 vertices per shell)"
"$BIN/spheremesh" 642 1.00 scalp.tri
"$BIN/spheremesh" 642 0.92 skull.tri
"$BIN/spheremesh" 642 0.88 brain.tri
"$BIN/electrode_layout" scalp.tri electrodes.elc

step "1. Forward job:  brelix < forward.ans"
"$BIN/brelix" < forward.ans
step "Transfer matrix forward.mat (electrodes x dipole components) and its description"
"$BIN/matdump" -n 4 forward.mat

step "2. Storing the inverted A matrix:  brelix -i head.ama < store.ans"
"$BIN/brelix" -i head.ama < store.ans
ls -l head.ama

step "3. Using the stored matrix:  brelix head.ama < loaded.ans"
"$BIN/brelix" head.ama < loaded.ans
"$BIN/matdump" -n 4 forward_loaded.mat

step "4. Inverse job: simulated data of the dipole in truth.pos, fitted from start.pos"
cat truth.pos
"$BIN/brelix" head.ama < truth.ans > /dev/null
"$BIN/simulate" -n 0.002 -s 7 truth.mat data.mat 0.0 0.5 1.0
"$BIN/brelix" head.ama < inverse.ans
step "Fitted position file fit.pos (true position: 0.20 0.30 0.50, moment 0 0.5 1)"
cat fit.pos
echo "-- fitted moment (fit.mat) and its standard deviation (fit.mat.sd):"
"$BIN/matdump" fit.mat
"$BIN/matdump" fit.mat.sd

PLOT="$BIN/apps/brelix-plot"
if [ -x "$PLOT" ]; then
  step "5. Pictures:  brelix-plot topomap | dipoles | head"
  head -n 7 forward.ans > geometry.ans  # the surfaces and conductivities: a head folder
  "$PLOT" topomap --electrodes electrodes.elc --head scalp.tri --data data.mat --model fitpot.mat \
    --dipoles fit.pos --moments fit.mat --unit a.u. --width 900 -o topomap.png
  "$PLOT" dipoles --head . --fit fit.pos --moments fit.mat --truth truth.pos --width 900 -o dipoles.png
  "$PLOT" head --head . --electrodes electrodes.elc --view left --width 600 -o head.png
fi

step "Done. The files are in $WORK"
