// The 10-20, 10-10 and 10-5 electrode layouts built on a subject's own
// scalp from four landmarks, by proportional distances along arcs of the
// scalp mesh.
//
// The midline runs from nasion to inion over the top; Cz is at its half.  The
// coronal arc runs from the left pre-auricular point over Cz to the right
// one; T7 and T8 are at 10 % of it from either end.  The circumference at the
// 10 % level runs from Fpz (10 % of the midline) over T7 to Oz (90 %) on the
// left, over T8 on the right; the circumference at the 0 % level runs from
// nasion over the pre-auricular points to inion.  A row (AF, F, FC, ...) at
// midline fraction m has its lateral points at fraction m of both halves of
// the 10 % circumference (Fp1 at 10 %, F7 at 30 %, T7 at 50 %, O1 at 90 %),
// and on the 0 % circumference (F9 ... P9, T9 at the pre-auricular point);
// between its lateral 7/8 point and the midline point, the columns 5, 3, 1
// and 2, 4, 6 divide the arc in quarters.
//
// Names: the 10-10 labels (FT, T and TP instead of FC, C and CP at columns
// 7 to 10); the 10-5 system adds the rows between (AFF, FFC, FCC, CCP, CPP,
// PPO, with FFT, FTT, TTP, TPP laterally), the midline points at every 5 %
// (NFpz ... OIz), and on every row the points halfway between neighbouring
// columns, each called after its outer neighbour with "h" (C5h between C5
// and C3, C1h between C1 and Cz, C2h between Cz and C2, T9h between T9 and
// T7).  Nasion and inion themselves are landmarks, not electrodes.
#pragma once

#include <string>
#include <vector>

#include "placement/closest_point.h"
#include "placement/positions.h"

struct HeadLandmarks {
  Vec3 nasion{}, inion{}, lpa{}, rpa{};
};

enum class LayoutSystem { s10_20, s10_10, s10_5 };

// "10-20", "10-10", "10-5"; false for anything else.
bool parse_layout_system(const std::string &text, LayoutSystem &out);

// The layout on the scalp of `locator`: the landmarks are first moved to
// their closest scalp points, and every electrode lies on the scalp.  Rows
// from front to back, each from left to right (the 10-20 layout in the
// order Fp1 Fpz Fp2 F7 F3 Fz F4 F8 T7 C3 Cz C4 T8 P7 P3 Pz P4 P8 O1 Oz O2).
// Throws std::runtime_error when the landmarks do not span a head frame or
// the scalp is not closed where an arc runs.
std::vector<LabelledPoint> build_layout(const ScalpLocator &locator, const HeadLandmarks &landmarks,
                                        LayoutSystem system);
