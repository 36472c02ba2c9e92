#!/usr/bin/env bash
# Regenerate the seed inputs of the fuzz targets under tests/fuzz/corpus.
#
#   bash tests/fuzz/make_corpus.sh BUILD_DIR
#
# BUILD_DIR holds a built brelix and spheremesh (e.g. build).  The seeds are
# small valid files made with the mesh tool and the program itself, and
# hand-written faulty ones; the fuzzers start from them and keep what they
# find in their own working folders, not here.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="$(cd "${1:?usage: make_corpus.sh BUILD_DIR}" && pwd)"
mesh="$build/spheremesh"
brelix="$build/brelix"
out="$here/corpus"
rm -rf "$out"
mkdir -p "$out"/{dhkinp,matrix,sources,electrodes,ama,dialogue}
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# Little-endian 32-bit words and floats as raw bytes.
le32() { for v in "$@"; do printf "$(printf '\\x%02x\\x%02x\\x%02x\\x%02x' $((v & 255)) $((v >> 8 & 255)) $((v >> 16 & 255)) $((v >> 24 & 255)))"; done; }
be32() { for v in "$@"; do printf "$(printf '\\x%02x\\x%02x\\x%02x\\x%02x' $((v >> 24 & 255)) $((v >> 16 & 255)) $((v >> 8 & 255)) $((v & 255)))"; done; }
# Bit patterns of a few floats: 1, 2, -0.5, 3.5, 0.25, 1e-3.
F1=1065353216 F2=1073741824 FM05=3204448256 F35=1080033280 F025=1048576000 FMILLI=981668463

# --- triangle files -------------------------------------------------------
d="$out/dhkinp"
"$mesh" 12 1 "$d/sphere12.txt" >/dev/null
"$mesh" -b 12 0.5 "$d/sphere12.bin" >/dev/null
printf '4\n1 0 0 0\n2 1 0 0\n3 0 1 0\n4 0 0 1\n4\n1 1 3 2\n2 1 2 4\n3 2 3 4\n4 3 1 4\n' >"$d/tetra_numbered.txt"
printf '4\n0 0 0\n1 0 0\n0 1 0\n0 0 1\n4\n1 3 2\n1 2 4\n2 3 4\n3 1 4\n' >"$d/tetra_plain.txt"
printf '3\r\n0 0 0\r\n1 0 0\r\n0 1 0\r\n' >"$d/no_triangles_crlf.txt"
printf '5\n0 0 0\n1 0 0\n' >"$d/short_vertices.txt"
printf '3\n0 0 0\n1 0 0\n0 1 0\n1\n1 2 9\n' >"$d/index_out_of_range.txt"
printf '3\n0 0 nan\n1 0 0\n0 1 inf\n1\n1 2 3\n' >"$d/not_finite.txt"
printf '2147483647\n0 0 0\n' >"$d/huge_count.txt"
{ le32 3; le32 0 0 0 "$F1" 0 0 0 "$F1" 0; le32 1; le32 0 1 2; } >"$d/triangle.bin"
{ le32 3; le32 0 0 0 "$F1" 0; } >"$d/truncated.bin"
{ le32 -1; le32 0 0 0; } >"$d/negative_count.bin"

# --- matrix files ---------------------------------------------------------
d="$out/matrix"
{ le32 2 3; le32 "$F1" "$F2" "$FM05" "$F35" "$F025" "$FMILLI"; printf 'sample freq\n500 Hz\n'; } >"$d/native_tail.mat"
{ be32 2 3; be32 "$F1" "$F2" "$FM05" "$F35" "$F025" "$FMILLI"; printf 'Sample Frequency\n250\n'; } >"$d/foreign_tail.mat"
{ le32 1 1; le32 "$F1"; } >"$d/one.mat"
{ le32 0 0; printf 'just a tail\n'; } >"$d/empty.mat"
{ le32 4 4; le32 "$F1" "$F2"; } >"$d/truncated.mat"
{ le32 100000 100000; } >"$d/huge_counts.mat"
printf '3\n1\n2\n3\n' >"$d/column.asc"
printf '2 2\n1 2\n3 4\n\n\nsample freq\n1000\nmore text\n' >"$d/square_tail.asc"
printf '2 3\n1 2 3\n4 five 6\n' >"$d/not_a_number.asc"
printf 'rows\n1 2\n' >"$d/no_count.asc"

# --- source position files --------------------------------------------------
d="$out/sources"
printf '1\n1 0 0 0.5\n' >"$d/one.pos"
printf '2\n1 0.2 0 0.1\n2 -0.2 0 0.1\n' >"$d/two_no_constraints.pos"
printf '2\n1 10 5 3\n2 -10 5 3\n# mirrored pair\n1 position stationary\n2 symmetric to 1\n' >"$d/symmetric.pos"
printf '2\n1 10 5 3\n2 -10 5 3\n1 p st o st\n2 position=symmetric to 1 orientation:symmetric 1\n' >"$d/symmetric_ori.pos"
printf '2\n1 0 0 1\n2 0 1 0\n1 position moving\n2 position moving\n' >"$d/moving.pos"
printf '2\n1 0 0 1\n2 0 1 0\n1 position=moving\n' >"$d/moving_mixed.pos"
printf '1\n1 0 0 1\n1 orientation symmetric 2\n' >"$d/partner_missing.pos"
printf '1\n1 0 0 1\n1 sy 1\n' >"$d/self_symmetric.pos"
printf '2\n1 0 0 1\n2 0 0 1\n2 symmetric to 1\n1 p st\n' >"$d/coinciding.pos"
printf '3\n1 0 0 1\n2 0 1 0\n' >"$d/short.pos"
printf '1\n1 0 0 1\n1 colour red\n' >"$d/syntax_error.pos"
printf '1\n1 0 0 1\nx position fixed\n7 position fixed\n' >"$d/bad_index.pos"

# --- electrode files (read for two spheres of 12 vertices, 20 triangles) ---
d="$out/electrodes"
printf '3\n1 1\n2 5\n3 24\n' >"$d/vertices.el"
printf '3\n1 0.2 0.3 !Fz\n5 0.1 0.1\n40 0.3 0.3 !Cz_long_label\n' >"$d/triangles.el"
printf '2\n0 0.2 0.2\n3 0.1 0.1\n' >"$d/triangle_zero.el"
printf '2\n1 0.2 0.2\n41 0.1 0.1\n' >"$d/triangle_too_large.el"
printf '2\n1 1\n2 25\n' >"$d/vertex_too_large.el"
printf '4\n1 1\n2 2\n' >"$d/short.el"
printf 'x\n1 1\n' >"$d/no_count.el"
printf '2147483647\n1 1\n' >"$d/huge_count.el"

# --- stored inverted A matrices ----------------------------------------------
d="$out/ama"
"$mesh" 12 1 "$work/outer.tri" >/dev/null
"$mesh" 12 0.8 "$work/inner.tri" >/dev/null
(cd "$work" && printf 'outer.tri\n1\n\n\n' | "$brelix" -i one.ama >/dev/null)
(cd "$work" && printf 'outer.tri\n1\n!inner.tri\n1\n\n*\n' | "$brelix" -i iso.ama >/dev/null)
printf '3\n1 0.2 0.3\n7 0.1 0.1 !Oz\n20 0.3 0.3\n' >"$work/tri.el"
(cd "$work" && printf 'outer.tri\n1\n\ntri.el\n' | "$brelix" -i tri.ama >/dev/null)
cp "$work/one.ama" "$work/iso.ama" "$work/tri.ama" "$d/"
head -c 300 "$work/one.ama" >"$d/truncated.ama"
{ le32 9 0 1; } >"$d/old_version.ama"
{ le32 10 1 1; } >"$d/magnetic.ama"

# --- whole dialogues (files of fuzz_dialogue's folder; x and y follow) ------
d="$out/dialogue"
printf '\nhead.tri\n1\n\n\none.pos\n\nout.mat\n' >"$d/forward.txt"
printf '\nhead.tri\n1\nbrain.tri\n0.2\n\n*\ntwo.pos\nd42.mat\nsol.mat\n' >"$d/inverse_all_vertices.txt"
printf '\nhead.tri\n1\n!brain.tri\n1\n\nvert.el\nori.pos\nd3.mat\nsol\nfwd\npos\n' >"$d/inverse_isolated.txt"
printf '\nhead.tri\n1\n\ntri.el\none.pos\nd12.mat\nd42.asc\ns\nsol\n\n' >"$d/inverse_retry.txt"
printf '\nhead.tri\n1\n\n\nmov.pos\nd42.asc\nsol\n\n' >"$d/moving.txt"
printf -- '-i a.ama\nskull.tri\n1\n\nvert.el\n' >"$d/store.txt"
printf -- '-f\nx\n1\n\n\none.pos\n\nt.mat\n\n=====\n3\n0 0 0\n1 0 0\n0 1 0\n1\n1 2 3\n' >"$d/own_surface.txt"
printf -- '-d 30\nhead.tri\n1\n\ny\nx\n\nt.mat\n\n=====\n1\n1 0 0 0.2\n=====\n2\n1 1\n2 2\n' >"$d/own_sources.txt"
{ printf 'x\none.pos\n\nt.mat\n\n=====\n'; cat "$work/one.ama"; } >"$d/loaded.txt"
printf '\nnope.tri\nhead.tri\n-1\n' >"$d/negative_conductivity.txt"
printf '\nhead.tri\nnan\n1\nhead.tri\n1\n' >"$d/coinciding.txt"
printf -- '-c\n' >"$d/usage.txt"
echo "seeds written to $out"
