// The two-image guided filter (p = src, I = guidance) in its nine steps, in this order:
//   1. mI = mean(I)            2. mP = mean(p)            3. T = I * p
//   4. cov = mean(T) - mI * mP 5. T = I * I, var = mean(T) - mI * mI
//   6. a = cov / (var + regulariser)                      7. b = mP - a * mI
//   8. mA = mean(a), mB = mean(b)                         9. dst = mA * I + mB
// Every mean is one call of the given box mean (six per filter). The element-wise work
// runs as five parallel row loops: step 3; step 4's difference; step 5's product; step
// 5's variance with steps 6 and 7 (no mean lies between them); step 9. Plain stores: each
// plane is read again by the next step, partly from the caches. Five scratch planes:
//   [0] mI, then mA   [1] mP, then b   [2] T, then mB   [3] mean(I p), cov, a   [4] mean(I I)
// dst is written only in step 9, which reads I at the same pixel: dst may equal src or I.

#include "imageprocessing/guided_filter/guided_kernels.h"

namespace grfx::guided {

template <class P>
void twoImageCoefficients(const float* p, const float* I, std::size_t width, std::size_t height,
                          const Regulariser& reg, const MeanFn& mean, float* const planes[5]) {
    constexpr int C = kChannels<P>;
    const std::size_t rowFloats = width * C;
    float* mI = planes[0];
    float* mP = planes[1];
    float* T = planes[2];
    float* cov = planes[3];
    float* var = planes[4];

    mean(mI, I);
    mean(mP, p);
    forRows(height, rowFloats, [&](std::size_t b, std::size_t e) {
        flatLoop(b, e, [&](std::size_t i, auto lanes) {
            using V = decltype(lanes);
            store(T + i, load<V>(I + i) * load<V>(p + i));
        });
    });
    mean(cov, T);
    forRows(height, rowFloats, [&](std::size_t b, std::size_t e) {
        flatLoop(b, e, [&](std::size_t i, auto lanes) {
            using V = decltype(lanes);
            store(cov + i, load<V>(cov + i) - load<V>(mI + i) * load<V>(mP + i));
        });
    });
    forRows(height, rowFloats, [&](std::size_t b, std::size_t e) {
        flatLoop(b, e, [&](std::size_t i, auto lanes) {
            using V = decltype(lanes);
            const V v = load<V>(I + i);
            store(T + i, v * v);
        });
    });
    mean(var, T);
    // The tail of step 5 and steps 6 and 7 follow each other with no mean between them:
    // one row loop computes, per pixel and in this order, var = mII - mI * mI,
    // a = cov / (var + regulariser) over cov, and b = mP - a * mI over mP. The values are
    // those of three separate loops; the var plane is not written back.
    if (!reg.weight) {
        forRows(height, rowFloats, [&](std::size_t b, std::size_t e) {
            flatLoop(b, e, [&](std::size_t i, auto lanes) {
                using V = decltype(lanes);
                const V m = load<V>(mI + i);
                const V v = load<V>(var + i) - m * m;
                const V a = load<V>(cov + i) / (v + V(reg.constant));
                store(cov + i, a);
                store(mP + i, load<V>(mP + i) - a * m);
            });
            });
    } else {
        // The weighted regulariser epsilon / W is one value per pixel, for every channel.
        forRows(height, width, [&](std::size_t b, std::size_t e) {
            for (std::size_t j = b; j < e; ++j) {
                const P m = P::load(mI, j);
                const P v = P::load(var, j) - m * m;
                const P a = P::load(cov, j) / (v + P(reg.epsilon / reg.weight[j]));
                P::store(cov, j, a);
                P::store(mP, j, P::load(mP, j) - a * m);
            }
        });
    }
}

template <class P>
void twoImage(const float* p, const float* I, float* dst, std::size_t width, std::size_t height,
              const Regulariser& reg, const MeanFn& mean) {
    constexpr int C = kChannels<P>;
    Plane<P> plane0(width, height), plane1(width, height), plane2(width, height), plane3(width, height),
        plane4(width, height);
    float* const planes[5] = {plane0.get(), plane1.get(), plane2.get(), plane3.get(), plane4.get()};
    twoImageCoefficients<P>(p, I, width, height, reg, mean, planes);

    float* mA = planes[0];
    float* mB = planes[2];
    mean(mA, planes[3]);
    mean(mB, planes[1]);
    forRows(height, width * C, [&](std::size_t b, std::size_t e) {
        flatLoop(b, e, [&](std::size_t i, auto lanes) {
            using V = decltype(lanes);
            store(dst + i, load<V>(mA + i) * load<V>(I + i) + load<V>(mB + i));
        });
    });
}

#define GRFX_GUIDED_TWO(P)                                                                                        \
    template void twoImageCoefficients<P>(const float*, const float*, std::size_t, std::size_t,                   \
                                          const Regulariser&, const MeanFn&, float* const[5]);                    \
    template void twoImage<P>(const float*, const float*, float*, std::size_t, std::size_t, const Regulariser&,   \
                              const MeanFn&);
GRFX_GUIDED_TWO(pixel_gray_t)
GRFX_GUIDED_TWO(pixel_rgb_t)
GRFX_GUIDED_TWO(pixel_t)
#undef GRFX_GUIDED_TWO

}  // namespace grfx::guided
