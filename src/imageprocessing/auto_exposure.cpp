// Auto exposure: the response tables, the exposure operator, the estimators and the
// functions that apply a fitted record.
//
// Working copy of the estimator (at most 512 columns):
//   w' = min(width, 512), h' = max(1, w' * height / width); source column x falls in
//   working column x * w' / width, source row y in working row y * h' / height, so every
//   working cell is a block of whole source pixels (one pixel when width <= 512).
//   A cell holds one colour channel, (x' + y') mod 3, averaged over its block: four
//   buffers (source sums, target sums, and the count of finite values of each) are
//   filled per working row, then the sums are divided by their counts where a count is
//   positive. A channel rather than a luminance, because the model acts on each channel
//   and is not linear: the luminance of the corrected image is not the corrected
//   luminance, while a channel sample obeys the model exactly.
//
// Costs: the mean over the cells of (target - model(source))^2, summed per working row
// in double precision into a vector of row sums that is added in row order, so the
// result does not depend on how rows were spread over threads.

#include <imageprocessing/auto_exposure.h>

#include <emmintrin.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include <zorl/common/managed_memory.h>

#include "core/error_log.h"
#include "core/parallel.h"

namespace {

using zorl::ManagedBuffer;
using zorl::parallelFor;

constexpr int kTableSize = 65535;
constexpr int kLastIndex = kTableSize - 1;
constexpr float kIndexScale = 65535.0f;
// The inverse table is filled through forward values times 65534, one less than the
// index scale used everywhere else, so that a forward value of exactly 1 still lands on
// the last entry.
constexpr float kInverseFillScale = 65534.0f;

constexpr int kKnots = 17;
// Knots of the response curve (exposure, value): multiples of 1/13 with extra knots at
// 0.3/13 and 12.5/13, values in sixty-thirds, as single-precision constants.
constexpr float kKnotX[kKnots] = {-0.0769230798f, 0.0f,         0.0230769236f, 0.0769230798f, 0.15384616f,
                                  0.230769232f,   0.307692319f, 0.384615391f,  0.461538464f,  0.538461566f,
                                  0.615384638f,   0.692307711f, 0.769230783f,  0.846153855f,  0.923076928f,
                                  0.961538434f,   1.0f};
constexpr float kKnotY[kKnots] = {-0.00317460322f, 0.0f,         0.0f,         0.00476190494f, 0.0190476198f,
                                  0.042857144f,    0.0793650821f, 0.161904767f, 0.336507946f,   0.579365075f,
                                  0.804761887f,    0.93650794f,   0.979365051f, 0.993650794f,   0.996825397f,
                                  0.998412669f,    1.0f};

// Both tables, back to back: forward (value from exposure), then inverse.
alignas(64) float gTables[2 * kTableSize];

// The forward table: the Lagrange polynomial through the knots, in single precision,
// four entries at a time (the SSE2 lanes compute exactly what the scalar formula does),
// clamped to 0..1.
void buildForwardTable(float* forward) {
    for (int i0 = 0; i0 < kTableSize; i0 += 4) {
        const __m128 x = _mm_div_ps(_mm_cvtepi32_ps(_mm_setr_epi32(i0, i0 + 1, i0 + 2, i0 + 3)), _mm_set1_ps(kIndexScale));
        __m128 sum = _mm_setzero_ps();
        for (int k = 0; k < kKnots; ++k) {
            __m128 product = _mm_set1_ps(1.0f);
            for (int j = 0; j < kKnots; ++j) {
                if (j == k) continue;
                const __m128 factor = _mm_div_ps(_mm_sub_ps(x, _mm_set1_ps(kKnotX[j])), _mm_set1_ps(kKnotX[k] - kKnotX[j]));
                product = _mm_mul_ps(product, factor);
            }
            sum = _mm_add_ps(sum, _mm_mul_ps(_mm_set1_ps(kKnotY[k]), product));
        }
        alignas(16) float lanes[4];
        _mm_store_ps(lanes, sum);
        for (int l = 0; l < 4 && i0 + l < kTableSize; ++l) {
            const float v = lanes[l];
            forward[i0 + l] = v < 0.0f ? 0.0f : (v > 1.0f ? 1.0f : v);
        }
    }
}

// The inverse table: every entry -1, then entry[forward[i] * 65534] = i / 65535 for
// ascending i (a later i wins), then each hole takes the last value set before it (0
// before the first).
void buildInverseTable(const float* forward, float* inverse) {
    std::fill(inverse, inverse + kTableSize, -1.0f);
    for (int i = 0; i < kTableSize; ++i)
        inverse[static_cast<int>(forward[i] * kInverseFillScale)] = static_cast<float>(i) / kIndexScale;
    float last = 0.0f;
    for (int i = 0; i < kTableSize; ++i) {
        if (inverse[i] < 0.0f)
            inverse[i] = last;
        else
            last = inverse[i];
    }
}

// Fills the tables when the library is loaded, before any call can read them.
const struct TableInitialiser {
    TableInitialiser() {
        buildForwardTable(gTables);
        buildInverseTable(gTables, gTables + kTableSize);
    }
} gTableInitialiser;

// Truncation of x * 65535 clamped to 0..65534; NaN reads entry 0.
inline int tableIndex(float x) {
    const float f = x * kIndexScale;
    if (!(f > 0.0f)) return 0;
    if (f >= static_cast<float>(kLastIndex)) return kLastIndex;
    return static_cast<int>(f);
}

inline float lookup(const float* table, float x) { return table[tableIndex(x)]; }

constexpr double kPi = 3.14159265358979323846;
// The S-curve weight the estimator starts from and leaves when it does not fit it; a
// record carrying exactly this value applies no S-curve (see the header).
constexpr float kUnfittedContrast = 0.5f;

// y pulled towards the cosine S-curve 0.5 + 0.5 cos(pi y + pi) by weight w; the cosine
// is taken in double precision and rounded to float.
inline float cosineTerm(float y) { return static_cast<float>(std::cos(kPi * static_cast<double>(y) + kPi)); }
inline float mixCosine(float y, float c, float w) { return y + (0.5f * c + 0.5f - y) * w; }
inline float cosineCurve(float y, float w) { return mixCosine(y, cosineTerm(y), w); }

struct ExposureModel {
    float gain, scale, offset, contrast;
    bool curve;  // the cosine S-curve step is on

    float operator()(float x) const {
        const float y = apply_exposure(x, gain, scale, offset);
        return curve ? cosineCurve(y, contrast) : y;
    }
};

ExposureModel appliedModel(const auto_exposure_data_t& d) {
    return {d.gain, d.scale, d.offset, d.contrast, d.contrast != kUnfittedContrast};
}

// ---------------------------------------------------------------------------------------
// Working copy of the estimators.

constexpr int kMaxWorkingColumns = 512;

struct WorkingSize {
    int width = 0, height = 0;
    std::size_t count() const { return static_cast<std::size_t>(width) * static_cast<std::size_t>(height); }
};

WorkingSize workingSize(int width, int height) {
    WorkingSize ws;
    ws.width = std::min(width, kMaxWorkingColumns);
    // Integer division; at least one row, so that a very wide strip still has samples.
    ws.height = std::max<int>(1, static_cast<int>(static_cast<int64_t>(ws.width) * height / width));
    return ws;
}

// The samples the costs run over: source and target values of each working cell.
struct Samples {
    WorkingSize size;
    ManagedBuffer<float> source, target;
};

// First source row of working row r: the smallest y with y * h' / height >= r.
inline int firstSourceRow(int r, int height, int workingHeight) {
    return static_cast<int>((static_cast<int64_t>(r) * height + workingHeight - 1) / workingHeight);
}

// Area-averaged channel samples of an interleaved RGB pair (see the top of the file).
Samples sampleRGB(const float* src, const float* dst, int width, int height) {
    Samples s;
    s.size = workingSize(width, height);
    const std::size_t n = s.size.count();
    s.source = ManagedBuffer<float>(n, true);
    s.target = ManagedBuffer<float>(n, true);
    ManagedBuffer<float> sourceCount(n, true), targetCount(n, true);
    ManagedBuffer<int> columnOf(static_cast<std::size_t>(width));
    for (int x = 0; x < width; ++x)
        columnOf[x] = static_cast<int>(static_cast<int64_t>(x) * s.size.width / width);

    const int ww = s.size.width, wh = s.size.height;
    float* sourceSum = s.source.data();
    float* targetSum = s.target.data();
    parallelFor(0, wh, [&](int r0, int r1) {
        for (int r = r0; r < r1; ++r) {
            const std::size_t cell0 = static_cast<std::size_t>(r) * ww;
            for (int y = firstSourceRow(r, height, wh), yEnd = firstSourceRow(r + 1, height, wh); y < yEnd; ++y) {
                const std::size_t row = static_cast<std::size_t>(y) * width * 3;
                for (int x = 0; x < width; ++x) {
                    const int cx = columnOf[x];
                    const std::size_t at = row + 3 * static_cast<std::size_t>(x) + (cx + r) % 3;
                    const float sv = src[at], tv = dst[at];
                    if (std::isfinite(sv)) {
                        sourceSum[cell0 + cx] += sv;
                        sourceCount[cell0 + cx] += 1.0f;
                    }
                    if (std::isfinite(tv)) {
                        targetSum[cell0 + cx] += tv;
                        targetCount[cell0 + cx] += 1.0f;
                    }
                }
            }
            // Normalisation: sums become means where a count is positive.
            for (std::size_t c = cell0; c < cell0 + ww; ++c) {
                if (sourceCount[c] > 0.0f) sourceSum[c] /= sourceCount[c];
                if (targetCount[c] > 0.0f) targetSum[c] /= targetCount[c];
            }
        }
    });
    return s;
}

// Mean of (target[k] - modelled(k))^2 over the samples; NaN when there are none.
template <class Modelled>
double meanSquaredErrorOf(const Samples& s, const Modelled& modelled, ManagedBuffer<double>& rowSums) {
    const int ww = s.size.width;
    const float* target = s.target.data();
    parallelFor(0, s.size.height, [&](int r0, int r1) {
        for (int r = r0; r < r1; ++r) {
            double sum = 0.0;
            for (std::size_t k = static_cast<std::size_t>(r) * ww, end = k + ww; k < end; ++k) {
                const double d = static_cast<double>(target[k]) - static_cast<double>(modelled(k));
                sum += d * d;
            }
            rowSums[r] = sum;
        }
    });
    double total = 0.0;
    for (int r = 0; r < s.size.height; ++r) total += rowSums[r];
    return total / static_cast<double>(s.size.count());
}

// The same with the model applied to each source sample.
template <class Model>
double meanSquaredError(const Samples& s, const Model& model, ManagedBuffer<double>& rowSums) {
    const float* source = s.source.data();
    return meanSquaredErrorOf(s, [&](std::size_t k) { return model(source[k]); }, rowSums);
}

// Bisection on the sign of a forward difference: keeps the last midpoint evaluated (the
// start value when the range is not wider than the tolerance).
template <class Cost>
float bisect(float lo, float hi, float tolerance, float start, const Cost& cost) {
    float p = start;
    while (hi - lo > tolerance) {
        p = (lo + hi) * 0.5f;
        if (cost(p) > cost(p + tolerance))
            lo = p;
        else
            hi = p;
    }
    return p;
}

struct Search {
    float lo, hi, tolerance;
};
constexpr Search kGainSearch{0.1f, 2.0f, 0.01f};
constexpr Search kScaleSearch{0.87f, 1.0f, 0.0001f};
constexpr Search kOffsetSearch{0.4f, 0.8f, 0.01f};
constexpr Search kContrastSearch{0.0f, 1.0f, 0.01f};
constexpr Search kScaleModelSearch{0.0f, 1.0f, 0.01f};
constexpr auto_exposure_data_t kStartRecord{0.1f, 0.9f, 0.5f, 0.5f};

// ---------------------------------------------------------------------------------------
// The ARGB scale model: a highlight/shadow power a, then a contrast S-curve b.

inline float powerCurve(float x, float a) {
    const float excess = x > 1.0f ? x - 1.0f : 0.0f;
    const float v = x - excess;
    const float k = 1.0f - 0.7f * std::abs(a);
    const float g = a < 0.0f ? k : 1.0f / k;
    return 1.0f - std::pow(1.0f - v, g) + excess;
}

inline float contrastCurve(float y, float b) {
    const float o = y > 1.0f ? y - 1.0f : (y < 0.0f ? y : 0.0f);
    const float r = y - o;
    const float c = b > 0.0f ? std::abs(b) + 1.0f : 1.0f / (std::abs(b) + 1.0f);
    if (r < 0.5f) return 0.5f * std::pow(2.0f * r, c) + o;
    return o + 1.0f - 0.5f * std::pow(2.0f - 2.0f * r, c);
}

struct ScaleModel {
    float a, b;
    float operator()(float x) const { return contrastCurve(powerCurve(x, a), b); }
};

// Nearest-neighbour luminance samples of an ARGB pair.
Samples sampleLumaARGB(const float* src, const float* dst, int width, int height) {
    constexpr float kR = 0.299f, kG = 0.587f, kB = 0.114f;
    Samples s;
    s.size = workingSize(width, height);
    s.source = ManagedBuffer<float>(s.size.count());
    s.target = ManagedBuffer<float>(s.size.count());
    const int ww = s.size.width, wh = s.size.height;
    parallelFor(0, wh, [&](int r0, int r1) {
        for (int r = r0; r < r1; ++r) {
            const int64_t y = static_cast<int64_t>(r) * height / wh;
            for (int c = 0; c < ww; ++c) {
                const int64_t x = static_cast<int64_t>(c) * width / ww;
                const std::size_t at = static_cast<std::size_t>((y * width + x) * 4);
                const std::size_t k = static_cast<std::size_t>(r) * ww + c;
                s.source[k] = kR * src[at + 1] + kG * src[at + 2] + kB * src[at + 3];
                s.target[k] = kR * dst[at + 1] + kG * dst[at + 2] + kB * dst[at + 3];
            }
        }
    });
    return s;
}

// ---------------------------------------------------------------------------------------
// Applying a record.

// Below this many channel values the model is evaluated directly; above, through a
// table of its values over the 65,535 input indices, built once per call (the cosine is
// the costly part, and a 6000 x 4000 image has 72 million values against 65,535 entries).
constexpr std::size_t kDirectApplyValues = 1u << 18;

// Result of the model for every value <= 1 (NaN included): such a value reaches the
// tables only through index((x - offset) * scale + offset), so the model is a function of
// that index; the entries repeat the direct arithmetic exactly.
void buildModelTable(const ExposureModel& m, float* table) {
    parallelFor(0, kTableSize, [&](int i0, int i1) {
        for (int i = i0; i < i1; ++i) {
            const float e = exposureTable[i];
            const float p = lookup(pixelValueTable, m.gain * e);
            const float y = std::max(0.0f, (p - m.offset) / m.scale + m.offset + 0.0f);
            table[i] = m.curve ? cosineCurve(y, m.contrast) : y;
        }
    });
}

const char* const kEstimateSignature =
    "void __cdecl autoExposureEstimateRGB(float *,float *,int,int,struct auto_exposure_data_t *,unsigned int)";
const char* const kApplySignature =
    "void __cdecl autoExposureApplyRGB(float *,float *,int,int,const struct auto_exposure_data_t *)";
const char* const kAdjustSignature = "void __cdecl autoExposureAdjustRGB(float *,float *,int,int)";
const char* const kAdjustARGBSignature = "void __cdecl autoExposureAdjustARGB(float *,float *,int,int)";
const char* const kScaleSignature =
    "void __cdecl autoScaleEstimateARGB(float *,float *,int,int,struct auto_exposure_data_t *)";

// The shared checks of the estimators and adjusters; each logs once.
bool checkImages(const char* signature, const float* src, const float* dst, int width, int height) {
    return zorl::checkNotNull(src, signature, "source is null") &&
           zorl::checkNotNull(dst, signature, "destination is null") &&
           zorl::checkThat(width > 0 && height > 0, signature, "image is empty");
}

}  // namespace

const float* const pixelValueTable = gTables;
const float* const exposureTable = gTables + kTableSize;

float pixel_value_from_exposure(float exposure) { return lookup(pixelValueTable, exposure); }

float exposure_from_pixel_value(float value) { return lookup(exposureTable, value); }

float apply_exposure(float value, float gain, float scale, float offset) {
    const float excess = value > 1.0f ? value - 1.0f : 0.0f;
    const float v = value - excess;
    const float u = (v - offset) * scale + offset;
    const float e = lookup(exposureTable, u);
    const float p = lookup(pixelValueTable, gain * e);
    // max(0, r) written so that a NaN r gives 0 too.
    return std::max(0.0f, (p - offset) / scale + offset + excess);
}

void autoExposureEstimateRGB(float* src, float* dst, int width, int height, auto_exposure_data_t* data,
                             unsigned int flags) {
    if (!checkImages(kEstimateSignature, src, dst, width, height) ||
        !zorl::checkNotNull(data, kEstimateSignature, "data is null"))
        return;
    const Samples samples = sampleRGB(src, dst, width, height);
    ManagedBuffer<double> rowSums(static_cast<std::size_t>(samples.size.height));

    auto_exposure_data_t rec = kStartRecord;
    // Searches in order, each with the fields found before it in force; the S-curve step
    // is part of the model only while its own weight is searched.
    const auto search = [&](const Search& range, float auto_exposure_data_t::*field) {
        rec.*field = bisect(range.lo, range.hi, range.tolerance, rec.*field, [&](float p) {
            auto_exposure_data_t trial = rec;
            trial.*field = p;
            const ExposureModel model{trial.gain, trial.scale, trial.offset, trial.contrast, false};
            return meanSquaredError(samples, model, rowSums);
        });
    };
    search(kGainSearch, &auto_exposure_data_t::gain);
    if (flags & kAutoExposureFitScale) search(kScaleSearch, &auto_exposure_data_t::scale);
    if (flags & kAutoExposureFitOffset) search(kOffsetSearch, &auto_exposure_data_t::offset);
    if (flags & kAutoExposureFitContrast) {
        // Only the curve weight moves in this search: apply_exposure and the cosine of
        // every sample are computed once, and each cost evaluation only mixes them (the
        // same arithmetic as the full model, so the same costs).
        const std::size_t n = samples.size.count();
        ManagedBuffer<float> exposed(n), cosine(n);
        const ExposureModel plain{rec.gain, rec.scale, rec.offset, 0.0f, false};
        parallelFor(std::size_t{0}, n, [&](std::size_t k0, std::size_t k1) {
            for (std::size_t k = k0; k < k1; ++k) {
                exposed[k] = plain(samples.source[k]);
                cosine[k] = cosineTerm(exposed[k]);
            }
        });
        const float* y = exposed.data();
        const float* c = cosine.data();
        rec.contrast = bisect(kContrastSearch.lo, kContrastSearch.hi, kContrastSearch.tolerance, rec.contrast,
                              [&](float w) {
                                  return meanSquaredErrorOf(
                                      samples, [&](std::size_t k) { return mixCosine(y[k], c[k], w); }, rowSums);
                              });
    }
    *data = rec;
}

void autoExposureApplyRGB(float* src, float* dst, int width, int height, const auto_exposure_data_t* data) {
    if (height <= 0 || width <= 0) return;
    if (!zorl::checkNotNull(src, kApplySignature, "source is null") ||
        !zorl::checkNotNull(dst, kApplySignature, "destination is null") ||
        !zorl::checkNotNull(data, kApplySignature, "data is null"))
        return;
    const ExposureModel model = appliedModel(*data);
    const std::size_t rowValues = static_cast<std::size_t>(width) * 3;
    if (rowValues * static_cast<std::size_t>(height) < kDirectApplyValues) {
        parallelFor(0, height, [&](int y0, int y1) {
            for (std::size_t i = y0 * rowValues, end = y1 * rowValues; i < end; ++i) dst[i] = model(src[i]);
        });
        return;
    }
    ManagedBuffer<float> table(kTableSize);
    buildModelTable(model, table.data());
    const float* t = table.data();
    parallelFor(0, height, [&](int y0, int y1) {
        const std::size_t begin = y0 * rowValues, end = y1 * rowValues;
        std::size_t i = begin;
        // Four values at a time: the index of (x - offset) * scale + offset as
        // tableIndex computes it (max with 0 first, which also turns NaN into 0, then
        // min with the last index, then truncation); values above 1 take the direct path.
        const __m128 offset = _mm_set1_ps(model.offset), scale = _mm_set1_ps(model.scale);
        const __m128 one = _mm_set1_ps(1.0f), indexScale = _mm_set1_ps(kIndexScale);
        const __m128 zero = _mm_setzero_ps(), last = _mm_set1_ps(static_cast<float>(kLastIndex));
        for (; i + 4 <= end; i += 4) {
            const __m128 x = _mm_loadu_ps(src + i);
            const __m128 u = _mm_add_ps(_mm_mul_ps(_mm_sub_ps(x, offset), scale), offset);
            const __m128 f = _mm_min_ps(_mm_max_ps(_mm_mul_ps(u, indexScale), zero), last);
            alignas(16) int32_t index[4];
            _mm_store_si128(reinterpret_cast<__m128i*>(index), _mm_cvttps_epi32(f));
            const int above = _mm_movemask_ps(_mm_cmpgt_ps(x, one));
            for (int l = 0; l < 4; ++l) dst[i + l] = (above >> l) & 1 ? model(src[i + l]) : t[index[l]];
        }
        for (; i < end; ++i) {
            const float x = src[i];
            dst[i] = x > 1.0f ? model(x) : t[tableIndex((x - model.offset) * model.scale + model.offset)];
        }
    });
}

void autoExposureAdjustRGB(float* src, float* dst, int width, int height) {
    if (!checkImages(kAdjustSignature, src, dst, width, height)) return;
    auto_exposure_data_t rec = kStartRecord;
    autoExposureEstimateRGB(src, dst, width, height, &rec,
                            kAutoExposureFitOffset | kAutoExposureFitScale | kAutoExposureFitContrast);
    autoExposureApplyRGB(src, dst, width, height, &rec);
}

void autoExposureAdjustARGB(float* src, float* dst, int width, int height) {
    if (!checkImages(kAdjustARGBSignature, src, dst, width, height)) return;
    const std::size_t pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    ManagedBuffer<float> srcRGB(3 * pixels), dstRGB(3 * pixels);
    const std::size_t w = static_cast<std::size_t>(width);
    parallelFor(0, height, [&](int y0, int y1) {
        for (std::size_t i = y0 * w, end = y1 * w; i < end; ++i)
            for (int c = 0; c < 3; ++c) {
                srcRGB[3 * i + c] = src[4 * i + 1 + c];
                dstRGB[3 * i + c] = dst[4 * i + 1 + c];
            }
    });
    autoExposureAdjustRGB(srcRGB.data(), dstRGB.data(), width, height);
    parallelFor(0, height, [&](int y0, int y1) {
        for (std::size_t i = y0 * w, end = y1 * w; i < end; ++i) {
            dst[4 * i] = src[4 * i];
            for (int c = 0; c < 3; ++c) dst[4 * i + 1 + c] = dstRGB[3 * i + c];
        }
    });
}

void autoScaleEstimateARGB(float* src, float* dst, int width, int height, auto_exposure_data_t* data) {
    if (!checkImages(kScaleSignature, src, dst, width, height) ||
        !zorl::checkNotNull(data, kScaleSignature, "data is null"))
        return;
    const Samples samples = sampleLumaARGB(src, dst, width, height);
    ManagedBuffer<double> rowSums(static_cast<std::size_t>(samples.size.height));
    // a first with a neutral curve (b = 0 is the identity), then b with a in force.
    float a = 0.0f, b = 0.0f;
    a = bisect(kScaleModelSearch.lo, kScaleModelSearch.hi, kScaleModelSearch.tolerance, a,
               [&](float p) { return meanSquaredError(samples, ScaleModel{p, b}, rowSums); });
    b = bisect(kScaleModelSearch.lo, kScaleModelSearch.hi, kScaleModelSearch.tolerance, b,
               [&](float p) { return meanSquaredError(samples, ScaleModel{a, p}, rowSums); });
    data->offset = a;
    data->contrast = b;
}
