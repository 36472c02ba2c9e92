#!/usr/bin/env bash
# The bundled example: a three-shell sphere head (scalp, skull, brain) with
# 19 electrodes in a 10-20-like layout and two dipoles.  It runs
#   1. a forward job that writes the transfer matrix,
#   2. an -i job that stores the inverted A matrix in head.ama,
#   3. a job that loads head.ama and writes the transfer matrix again,
#   4. an inverse job: a dipole fitted to simulated data, next to the true one,
# each scripted by an answer file on standard input, and shows what they wrote;
# then, when brelix-plot was built, draws the fit (topomap.png, dipoles.png)
# and the head with its electrodes (head.png); and last the way from the
# files users have to a fit: a non-spherical head through brelix-prep head, a
# 10-10 layout built on its scalp, a simulated EDF+ recording averaged around
# its markers, and the fitted dipole next to the true one (topomap2.png,
# dipoles2.png, timecourse2.png).
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

PREP="$BIN/apps/brelix-prep"
if [ -x "$PREP" ] && [ -x "$BIN/headmesh" ] && [ -x "$BIN/simulate_recording" ]; then
  step "6. A head that is no sphere: surfaces made by headmesh, prepared by brelix-prep head"
  "$BIN/headmesh" -v 642 -p shapes
  "$PREP" head shapes/scalp.tri shapes/skull.tri shapes/brain.tri --units m --sigma 0.33,0.0042,0.33 -o head2
  cat head2/geometry.ans

  step "7. A 10-10 layout built on that scalp from four landmarks (brelix-prep electrodes --system 10-10)"
  # Rough points in front, behind and beside the head: each is moved to its
  # closest point on the scalp before the arcs are measured.
  printf 'Nz 0 0.11 0\nIz 0 -0.12 0\nLPA -0.08 0 0\nRPA 0.08 0 0\n' > landmarks.txt
  "$PREP" electrodes --scalp head2 --system 10-10 --fiducials landmarks.txt --units m -o eeg.elc
  head -n 4 eeg.elc; echo "..."

  step "8. A recording: 60 epochs of a dipole at 0.025 0.010 0.045 (moment 0 0.5e-8 1e-8), noise 0.2 uV, as EDF+"
  printf '1\n1 0.025 0.010 0.045\n' > truth2.pos
  { cat head2/geometry.ans; printf 'eeg.elc\ntruth2.pos\n\ntruth2.mat\n'; } | "$BIN/brelix" > /dev/null
  "$BIN/simulate_recording" truth2.mat eeg.elc sim.edf --moments 0,0.5e-8,1e-8 --noise 2e-7 \
    --epochs 60 --marker stim --seed 3
  ls -l sim.edf

  step "9. Averaged around the markers (brelix-prep data --average stim --epoch 0.06:0.09)"
  "$PREP" data sim.edf --electrodes eeg.elc --average stim --epoch 0.06:0.09 -o evoked.mat
  "$BIN/matdump" -n 2 evoked.mat

  step "10. Fitted by brelix: one stationary dipole over the averaged samples"
  printf '1\n1 0.010 0.000 0.030\n1 position stationary\n' > start2.pos
  { cat head2/geometry.ans; printf 'eeg.elc\nstart2.pos\nevoked.mat\nfit2.mat\nfitpot2.mat\nfit2.pos\n'; } | "$BIN/brelix"
  echo "-- fitted (fit2.pos) next to the true dipole (truth2.pos):"
  head -n 2 fit2.pos | tail -n 1
  tail -n 1 truth2.pos
  if [ -x "$PLOT" ]; then
    "$PLOT" topomap --electrodes eeg.elc --head head2 --data evoked.mat --model fitpot2.mat --sample 8 --no-labels \
      --dipoles fit2.pos --moments fit2.mat --width 900 -o topomap2.png
    "$PLOT" dipoles --head head2 --fit fit2.pos --moments fit2.mat --truth truth2.pos --width 900 -o dipoles2.png
    "$PLOT" timecourse --fit fit2.mat --sources fit2.pos --width 900 -o timecourse2.png
  fi
fi

step "Done. The files are in $WORK"
