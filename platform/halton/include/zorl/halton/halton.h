#pragma once
// The Halton low-discrepancy sequence.

#include <zorl/halton/export.h>

namespace zorl {

// Largest dimension halton() serves (one prime base per dimension).
inline constexpr int kHaltonMaxDimension = 16;

// Writes the Halton point of the given index into point[0 .. dimension-1]: coordinate k
// is the radical inverse of (index + 1) in the k-th prime base (2, 3, 5, ...). Index 0 is
// the first point after the origin, (1/2, 1/3) in two dimensions, so that the sequence
// never repeats the corner sample (0, 0) that samplers put first.
//
// baseInverses and digits are optional scratch of `dimension` entries (null allowed);
// when given they receive 1/base and the lowest digit of each coordinate.
// Returns false, writing nothing, for a negative index or a dimension outside
// 1 .. kHaltonMaxDimension.
ZORL_HALTON_EXPORT bool halton(int index, int dimension, float* baseInverses, int* digits, float* point);

// Radical inverse of n in the given base, in double precision.
ZORL_HALTON_EXPORT double radicalInverse(unsigned long long n, unsigned base);

}  // namespace zorl
