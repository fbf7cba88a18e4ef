// The resampler against a plain double-precision reference of the same rules: corner
// samples with their fallback, bilinear values with clamped neighbours, Halton
// supersampling by policy, background, clipped regions, the shortcut and Image sources.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <numbers>
#include <optional>
#include <variant>

#include <imageprocessing/tiled_mask_image.h>
#include <imageprocessing/transform_computer.h>
#include <zorl/core/image.h>
#include <zorl/core/mask_image.h>

#include "support/test_support.h"

namespace zorl {
namespace {

using RGB = PixelRGB<float>;
using RGBA = PixelRGBA<float>;
using Type = TransformComputer::DataSourceType;

// Float against double: positions differ by ~1e-5 px and sums of up to 24 samples by a
// few float ulps; values change by at most ~0.1 per pixel.
constexpr double kValueTol = 2e-5;

// ---- the reference -------------------------------------------------------------------

struct Plane {
    int w = 0, h = 0, n = 0;
    std::vector<double> v;
    double at(int x, int y, int c) const { return v[(std::size_t(y) * w + x) * n + c]; }
};

template <class P>
Plane toPlane(const _ImageData<P>& img) {
    constexpr int N = PixelTraits<P>::channels;
    using C = typename PixelTraits<P>::Channel;
    Plane p{img.width(), img.height(), N, {}};
    const C* c = reinterpret_cast<const C*>(img.data());
    for (std::size_t i = 0; i < img.pixelCount() * N; ++i) p.v.push_back(double(c[i]));
    return p;
}

double radicalInverse(int n, int base) {
    double r = 0, f = 1.0 / base;
    for (; n > 0; n /= base, f /= base) r += (n % base) * f;
    return r;
}

// Halton points appended by the rules: scale-adaptive round(min(2 s, 20)) from s >= 1.1;
// rotation-only 10 when allowed and rotating.
int referenceHaltonCount(SupersamplingPolicy policy, const AffineTransform& t, bool allow) {
    if (policy == SupersamplingPolicy::ScaleAdaptive) {
        const double a = t.a, b = t.b, c = t.c, d = t.d;
        const double p = a * a + c * c, q = b * a + d * c, r = b * b + d * d;
        const double s = std::sqrt((p + r) / 2 + std::sqrt((p - r) * (p - r) / 4 + q * q));
        return s >= 1.1 ? int(std::lround(std::min(2 * s, 20.0))) : 0;
    }
    return allow && (std::fabs(t.b) > 1e-5 || std::fabs(t.c) > 1e-5) ? 10 : 0;
}

Plane referenceResample(const Plane& src, int dw, int dh, const AffineTransform& t, SupersamplingPolicy policy,
                        bool allow, std::vector<double> background) {
    std::vector<std::pair<double, double>> offsets = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
    const int halton = referenceHaltonCount(policy, t, allow);
    for (int i = 0; i < halton; ++i) offsets.push_back({radicalInverse(i + 1, 2), radicalInverse(i + 1, 3)});
    Plane out{dw, dh, src.n, std::vector<double>(std::size_t(dw) * dh * src.n)};
    for (int y = 0; y < dh; ++y) {
        for (int x = 0; x < dw; ++x) {
            std::vector<double> sum(src.n, 0.0);
            int valid = 0;
            for (auto [ox, oy] : offsets) {
                const double px = double(t.a) * (x + ox) + double(t.c) * (y + oy) + t.tx;
                const double py = double(t.b) * (x + ox) + double(t.d) * (y + oy) + t.ty;
                const double fx0 = std::floor(px), fy0 = std::floor(py);
                if (fx0 < 0 || fy0 < 0 || fx0 >= src.w || fy0 >= src.h) continue;
                const int ix = int(fx0), iy = int(fy0), x1 = std::min(ix + 1, src.w - 1), y1 = std::min(iy + 1, src.h - 1);
                const double fx = px - fx0, fy = py - fy0;
                for (int c = 0; c < src.n; ++c) {
                    const double top = src.at(ix, iy, c) * (1 - fx) + src.at(x1, iy, c) * fx;
                    const double bottom = src.at(ix, y1, c) * (1 - fx) + src.at(x1, y1, c) * fx;
                    sum[c] += top * (1 - fy) + bottom * fy;
                }
                ++valid;
                if (halton == 0) break;
            }
            for (int c = 0; c < src.n; ++c)
                out.v[(std::size_t(y) * dw + x) * src.n + c] = valid ? sum[c] / valid : background[c];
        }
    }
    return out;
}

template <class P>
::testing::AssertionResult matches(const _ImageData<P>& got, const Plane& want, double tol) {
    const Plane g = toPlane(got);
    if (g.w != want.w || g.h != want.h) return ::testing::AssertionFailure() << "size differs";
    for (std::size_t i = 0; i < g.v.size(); ++i)
        if (!(std::fabs(g.v[i] - want.v[i]) <= tol))
            return ::testing::AssertionFailure() << "pixel " << i / g.n % g.w << "," << i / g.n / g.w << " channel "
                                                 << i % g.n << ": " << g.v[i] << " vs " << want.v[i];
    return ::testing::AssertionSuccess();
}

// ---- test images and settings --------------------------------------------------------

template <class P>
std::shared_ptr<_ImageData<P>> noiseImage(_Size<int> size, uint32_t seed) {
    constexpr int N = PixelTraits<P>::channels;
    using C = typename PixelTraits<P>::Channel;
    const bool bytes = std::is_same_v<C, uint8_t>;
    const auto v = test::noise(std::size_t(size.area()) * N, seed, 0.0f, bytes ? 255.0f : 1.0f);
    auto img = std::make_shared<_ImageData<P>>(size, ColorProfileType::sRGB());
    C* c = reinterpret_cast<C*>(img->data());
    for (std::size_t i = 0; i < v.size(); ++i) c[i] = static_cast<C>(v[i]);
    return img;
}

ImageTransformSettings settingsFor(_Size<int> canvas, const CropDescription& crop,
                                   std::optional<AffineTransform> extra = std::nullopt) {
    ImageTransformSettings s;
    s.canvasSize = canvas;
    s.crop = crop;
    if (extra) {
        s.hasTransform = 1;
        s.transformParameters = *extra;
    }
    return s;
}

// A crop that frames the whole canvas without moving it: not the default, so no shortcut.
CropDescription wholeCanvas(_Size<int> canvas, float angle = 0.0f) {
    return CropDescription({0, 0, canvas.width, canvas.height}, angle, false, false);
}

template <class P>
std::vector<double> backgroundOf() {
    if constexpr (std::is_same_v<P, RGB>) return {0.2, 0.2, 0.2};
    else if constexpr (std::is_same_v<P, RGBA>) return {0.2, 0.2, 0.2, 0.0};
    else return {0.0};
}

template <class P>
constexpr SupersamplingPolicy policyOf() {
    return std::is_same_v<P, RGB> ? SupersamplingPolicy::ScaleAdaptive : SupersamplingPolicy::RotationOnly;
}

// ---- tests -----------------------------------------------------------------------------

TEST(TransformComputer, ResizeParametersAndCanvas) {
    ImageTransformSettings s;
    s.region = {-0.5f, 1.9f, 10.7f, 3.2f};
    s.workingSize = {33, 7};
    s.canvasSize = {640, 480};
    TransformComputer tc(s, Type::ImageData);
    const ResizeParameters rp = tc.getWorkingResizeParameters();
    EXPECT_EQ(rp.rect, _Rect<int>(0, 1, 10, 3));
    EXPECT_EQ(rp.size, _Size<int>(33, 7));
    EXPECT_TRUE(rp.resizeFlag);
    EXPECT_EQ(tc.calculateCanvasSize(), _Size<int>(640, 480));
    s.crop = CropDescription({10, 20, 300, 200}, 5.0f, false, true);
    tc = TransformComputer(s, Type::ImageData);
    EXPECT_EQ(tc.calculateCanvasSize(), _Size<int>(300, 200));
    EXPECT_EQ(tc.calculateCanvasRoi(), _Rect<float>(0, 0, 300, 200));

    const TransformComputer fresh;
    EXPECT_EQ(fresh.settings(), ImageTransformSettings());
    EXPECT_TRUE(std::get<AffineTransform>(fresh.settings().transformParameters).isIdentity());
    EXPECT_EQ(fresh.calculateCanvasSize(), kEmptySize);
}

TEST(TransformComputer, OffsetCountsByPolicy) {
    using sampling::sampleOffsets;
    const auto SA = SupersamplingPolicy::ScaleAdaptive, RO = SupersamplingPolicy::RotationOnly;
    const AffineTransform quarter = AffineTransform::makeRotation(std::numbers::pi / 2);
    struct Case {
        SupersamplingPolicy policy;
        AffineTransform t;
        bool allow, centre;
        int count;
    };
    const Case cases[] = {
        {SA, AffineTransform::makeScale(3, 3), true, false, 4 + 6},
        {SA, AffineTransform::makeScale(12, 12), true, false, 4 + 20},
        {SA, AffineTransform::makeScale(1.05f, 1.05f), true, false, 4},
        {SA, AffineTransform::makeScale(1.1f, 1.0f), true, false, 4 + 2},
        {SA, quarter, true, false, 4},
        {SA, AffineTransform::makeScale(3, 3), false, true, 1 + 6},  // the pixel-centre list
        {RO, quarter, true, false, 4 + 10},
        {RO, quarter, false, false, 4},
        {RO, AffineTransform::makeScale(5, 5), true, false, 4},
        {RO, AffineTransform::makeRotation(0.2), true, true, 1 + 10},
    };
    for (const Case& c : cases) {
        const SampleOffsets o = sampleOffsets(c.policy, c.t, c.allow, c.centre);
        EXPECT_EQ(o.count, c.count) << int(c.policy) << " " << c.t.a;
        EXPECT_EQ(o.supersampled, c.count > 4 || (c.centre && c.count > 1));
        const int first = c.centre ? 1 : 4;
        EXPECT_EQ(o.points[0], c.centre ? _Point<float>(0.5f, 0.5f) : _Point<float>(0, 0));
        if (!c.centre) {
            EXPECT_EQ(o.points[3], _Point<float>(0, 1));
        }
        for (int i = first; i < o.count; ++i) {  // Halton indices 0, 1, ...
            EXPECT_FLOAT_EQ(o.points[i].x, float(radicalInverse(i - first + 1, 2)));
            EXPECT_FLOAT_EQ(o.points[i].y, float(radicalInverse(i - first + 1, 3)));
        }
    }
    EXPECT_FLOAT_EQ(sampling::largestSingularValue(AffineTransform(0, 1, -1, 0, 0, 0)), 1.0f);
}

// Renditions of every type and policy against the reference.
template <class P>
void checkCreateAgainstReference(_Size<int> srcSize, const ImageTransformSettings& s, const ResizeParameters& rp,
                                 double tol) {
    const auto src = noiseImage<P>(srcSize, 7);
    src->setLoadState(ImageLoadState::Preview);
    const TransformComputer tc(s, Type::ImageData);
    test::MemoryBalance balance;
    {
        const auto out = tc.createTransformedRoi<_ImageData<P>, _ImageData<P>>(*src, rp);
        ASSERT_TRUE(out);
        EXPECT_EQ(out->getLoadState(), ImageLoadState::Preview);
        EXPECT_TRUE(sameProfile(out->colorProfile(), src->colorProfile()));
        const AffineTransform t = s.getSamplingTransform(_Rect<float>(rp.rect), rp.size);
        const Plane want =
            referenceResample(toPlane(*src), rp.size.width, rp.size.height, t, policyOf<P>(), true, backgroundOf<P>());
        EXPECT_TRUE(matches(*out, want, tol));
    }
    EXPECT_TRUE(balance.balanced());
}

TEST(TransformComputer, CreateMatchesReference) {
    const _Size<int> c24{24, 18}, c48{48, 36};
    const ResizeParameters whole24{{8, 6}, {0, 0, 24, 18}, true};
    const ResizeParameters rotated{{20, 15}, {0, 0, 24, 18}, true};
    const AffineTransform shear(1.1f, 0.15f, -0.3f, 0.8f, 2.5f, -1.25f);
    // RGB: scale-adaptive (s = 3, s = 12, s = 1 rotated, enlarged, extra transform).
    checkCreateAgainstReference<RGB>(c24, settingsFor(c24, wholeCanvas(c24)), whole24, kValueTol);
    checkCreateAgainstReference<RGB>(c48, settingsFor(c48, wholeCanvas(c48)), {{4, 3}, {0, 0, 48, 36}, true}, kValueTol);
    checkCreateAgainstReference<RGB>(c24, settingsFor(c24, wholeCanvas(c24, 30.0f)), {{24, 18}, {0, 0, 24, 18}, true},
                                     kValueTol);
    checkCreateAgainstReference<RGB>(c24, settingsFor(c24, wholeCanvas(c24, 90.0f)), {{24, 18}, {0, 0, 24, 18}, true},
                                     kValueTol);
    checkCreateAgainstReference<RGB>(c24, settingsFor(c24, CropDescription({3, 2, 12, 9}, -20.0f, true, false)),
                                     {{31, 23}, {0, 0, 12, 9}, true}, kValueTol);
    checkCreateAgainstReference<RGB>(c24, settingsFor(c24, CropDescription(), shear), {{10, 9}, {1, 1, 20, 15}, true},
                                     kValueTol);
    // Rotation-only policy: gray, RGBA, bytes (bytes round: one step of slack).
    checkCreateAgainstReference<float>(c24, settingsFor(c24, wholeCanvas(c24, 30.0f)), rotated, kValueTol);
    checkCreateAgainstReference<float>(c24, settingsFor(c24, wholeCanvas(c24, 90.0f)), rotated, kValueTol);
    checkCreateAgainstReference<float>(c24, settingsFor(c24, wholeCanvas(c24)), whole24, kValueTol);  // no rotation
    checkCreateAgainstReference<RGBA>(c24, settingsFor(c24, CropDescription({-2, 1, 20, 16}, 45.0f, false, true)),
                                      rotated, kValueTol);
    checkCreateAgainstReference<uint8_t>(c24, settingsFor(c24, wholeCanvas(c24, 12.0f)), rotated, 0.5 + 1e-3);
    checkCreateAgainstReference<uint8_t>(c24, settingsFor(c24, wholeCanvas(c24)), {{30, 20}, {0, 0, 24, 18}, true},
                                         0.5 + 1e-3);
}

TEST(TransformComputer, CornerFallbackAndBackground) {
    // 4 x 2 source shifted half a pixel right: destination x maps to x - 0.5.
    _ImageData<RGB> src({4, 2}, ColorProfileType::sRGB());
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 4; ++x) src.at(x, y) = {float(x), float(10 * y), 1.0f};
    const _Size<int> canvas{4, 2};
    const TransformComputer half(settingsFor(canvas, wholeCanvas(canvas), AffineTransform::makeTranslation(0.5f, 0)),
                                 Type::ImageData);
    auto out = half.createTransformedRoi<_ImageData<RGB>, _ImageData<RGB>>(src, {{4, 2}, {0, 0, 4, 2}, true});
    ASSERT_TRUE(out);
    EXPECT_FLOAT_EQ(out->at(0, 0).r, 0.5f);   // (-0.5, 0) outside: corner (0.5, 0) stands in
    EXPECT_FLOAT_EQ(out->at(2, 0).r, 1.5f);   // first corner (1.5, 0)
    EXPECT_FLOAT_EQ(out->at(3, 1).r, 2.5f);   // right neighbour of column 3 clamps
    EXPECT_FLOAT_EQ(out->at(3, 1).g, 10.0f);  // bottom row, y + 1 clamped

    // Shifted five pixels left: the right half has no valid sample.
    const TransformComputer away(settingsFor(canvas, wholeCanvas(canvas), AffineTransform::makeTranslation(-5, 0)),
                                 Type::ImageData);
    out = away.createTransformedRoi<_ImageData<RGB>, _ImageData<RGB>>(src, {{4, 2}, {0, 0, 4, 2}, true});
    for (int x = 0; x < 4; ++x) EXPECT_EQ(out->at(x, 1), (RGB{0.2f, 0.2f, 0.2f}));
    _ImageData<float> gray({4, 2}, 0.7f, ColorProfileType::sRGB());
    const auto g = away.createTransformedRoi<_ImageData<float>, _ImageData<float>>(gray, {{4, 2}, {0, 0, 4, 2}, true});
    EXPECT_EQ(g->at(1, 1), 0.0f);

    // Bytes: 10 and 11 half-way gives 10.5, rounded to 11.
    _ImageData<uint8_t> bytes({2, 1}, ColorProfileType::sRGB());
    bytes.at(0, 0) = 10, bytes.at(1, 0) = 11;
    const TransformComputer shiftBytes(
        settingsFor({2, 1}, wholeCanvas({2, 1}), AffineTransform::makeTranslation(-0.5f, 0)), Type::ImageData);
    const auto b = shiftBytes.createTransformedRoi<_ImageData<uint8_t>, _ImageData<uint8_t>>(bytes, {{2, 1}, {0, 0, 2, 1}, true});
    EXPECT_EQ(b->at(0, 0), 11);
}

TEST(TransformComputer, ShortcutIsThePlainResize) {
    const auto src = noiseImage<RGB>({30, 20}, 3);
    const TransformComputer tc(settingsFor({30, 20}, CropDescription()), Type::ImageData);
    const ResizeParameters rp{{10, 5}, {3, 2, 21, 14}, true};
    const auto out = tc.createTransformedRoi<_ImageData<RGB>, _ImageData<RGB>>(*src, rp);
    const auto expected = src->resize(rp.size, rp.rect, true);
    ASSERT_TRUE(out && expected);
    EXPECT_EQ(0, std::memcmp(out->data(), expected->data(), expected->byteCount()));
    // Enlarging or a region reaching outside resamples instead.
    const ResizeParameters outside{{10, 5}, {-1, 0, 21, 14}, true};
    const auto resampled = tc.createTransformedRoi<_ImageData<RGB>, _ImageData<RGB>>(*src, outside);
    EXPECT_TRUE(matches(*resampled,
                        referenceResample(toPlane(*src), 10, 5, tc.settings().getSamplingTransform({-1, 0, 21, 14}, {10, 5}),
                                          SupersamplingPolicy::ScaleAdaptive, true, {0.2, 0.2, 0.2}),
                        kValueTol));
    EXPECT_FALSE((tc.createTransformedRoi<_ImageData<RGB>, _ImageData<RGB>>(*src, {{0, 0}, {0, 0, 5, 5}, true})));
}

TEST(TransformComputer, UpdateRegionsClipAndTile) {
    const _Size<int> canvas{36, 27};
    const auto src = noiseImage<RGB>(canvas, 11);
    const ImageTransformSettings s = settingsFor(canvas, CropDescription({2, 1, 30, 24}, 25.0f, false, true));
    const TransformComputer tc(s, Type::ImageData);
    const ResizeParameters rp{{13, 11}, {0, 0, 30, 24}, true};  // s > 2: supersampled
    const auto whole = tc.createTransformedRoi<_ImageData<RGB>, _ImageData<RGB>>(*src, rp);
    const RGB sentinel{-7, -7, -7};

    // Tiles that cover the rendition, uneven sizes, one reaching past the edge.
    auto tiled = std::make_shared<_ImageData<RGB>>(rp.size, sentinel, ColorProfileType::sRGB());
    for (const _Rect<int> r : {_Rect<int>{0, 0, 5, 4}, {5, 0, 20, 4}, {0, 4, 7, 7}, {7, 4, 6, 30}})
        tc.updateTransformedRoi(*src, tiled, _Rect<float>(rp.rect), r);
    EXPECT_EQ(0, std::memcmp(tiled->data(), whole->data(), whole->byteCount()));

    // A region partly outside is clipped; one wholly outside writes nothing.
    auto part = std::make_shared<_ImageData<RGB>>(rp.size, sentinel, ColorProfileType::sRGB());
    part->setLoadState(ImageLoadState::Thumbnail);
    tc.updateTransformedRoi(*src, part, _Rect<float>(rp.rect), {20, 20, 4, 4});
    tc.updateTransformedRoi(*src, part, _Rect<float>(rp.rect), {-3, -50, 3, 100});
    EXPECT_EQ(part->getLoadState(), ImageLoadState::Thumbnail);
    tc.updateTransformedRoi(*src, part, _Rect<float>(rp.rect), {-3, 8, 6, 10});
    EXPECT_EQ(part->getLoadState(), ImageLoadState::Full);
    for (int y = 0; y < rp.size.height; ++y)
        for (int x = 0; x < rp.size.width; ++x)
            EXPECT_EQ(part->at(x, y), (x < 3 && y >= 8) ? whole->at(x, y) : sentinel) << x << "," << y;

    // Rotation-only renditions: updates do not supersample.
    const auto gray = noiseImage<float>(canvas, 5);
    auto grayOut = std::make_shared<_ImageData<float>>(rp.size, -1.0f, ColorProfileType::sRGB());
    tc.updateTransformedRoi(*gray, grayOut, _Rect<float>(rp.rect), kNoRegion);
    EXPECT_TRUE(matches(*grayOut,
                        referenceResample(toPlane(*gray), 13, 11, s.getSamplingTransform(_Rect<float>(rp.rect), rp.size),
                                          SupersamplingPolicy::RotationOnly, false, {0.0}),
                        kValueTol));

    test::LogCapture log;
    std::shared_ptr<_ImageData<float>> none;
    tc.updateTransformedRoi(*gray, none, _Rect<float>(rp.rect), kNoRegion);
    ASSERT_EQ(log.count(), 1u);
    EXPECT_EQ(log.lines()[0],
              "void __cdecl zorl::TransformComputer::updateTransformedRoi<class zorl::_ImageData<float>,class "
              "zorl::_ImageData<float>>(const class zorl::_ImageData<float> &,class std::shared_ptr<class "
              "zorl::_ImageData<float> > &,const struct zorl::_Rect<float> &,const struct zorl::_Rect<int> &) const: "
              "destination is null");
    EXPECT_EQ(log.types()[0], LogMessageType(3));
}

TEST(TransformComputer, SameOnOneThreadAsOnMany) {
    const _Size<int> canvas{40, 30};
    const auto src = noiseImage<RGBA>(canvas, 2);
    const TransformComputer tc(settingsFor(canvas, wholeCanvas(canvas, 33.0f)), Type::ImageData);
    const ResizeParameters rp{{37, 29}, {0, 0, 40, 30}, true};
    const auto many = tc.createTransformedRoi<_ImageData<RGBA>, _ImageData<RGBA>>(*src, rp);
    std::shared_ptr<_ImageData<RGBA>> one;
    test::onOneThread([&] { one = tc.createTransformedRoi<_ImageData<RGBA>, _ImageData<RGBA>>(*src, rp); });
    EXPECT_EQ(0, std::memcmp(one->data(), many->data(), many->byteCount()));
}

TEST(TransformComputer, TransformParametersMustBeAffine) {
    const auto src = noiseImage<RGB>({8, 8}, 1);
    ImageTransformSettings s = settingsFor({8, 8}, CropDescription());
    s.hasTransform = 1;
    s.transformParameters = std::monostate{};
    const TransformComputer tc(s, Type::ImageData);
    EXPECT_THROW((tc.createTransformedRoi<_ImageData<RGB>, _ImageData<RGB>>(*src, {{4, 4}, {0, 0, 8, 8}, true})),
                 std::bad_variant_access);
    auto dst = std::make_shared<_ImageData<RGB>>(_Size<int>{4, 4}, ColorProfileType::sRGB());
    EXPECT_THROW(tc.updateTransformedRoi(*src, dst, {0, 0, 8, 8}, kNoRegion), std::bad_variant_access);
}

TEST(TransformComputer, ImageSourcesByDataSourceType) {
    const _Size<int> size{20, 14};
    Image image(noiseImage<RGB>(size, 21));
    image.getModifiedImageData()->at(3, 3) = {5, 5, 5};
    const ResizeParameters whole{size, {0, 0, 20, 14}, true};
    const std::shared_ptr<const _ImageData<RGB>> expected[] = {
        image.imageData(size, whole.rect, true),
        image.originalImageData(whole),
        image.developedOriginalImageData(whole),
        image.getDenoiseResultDataWithCA(whole, {}, false).second,
        image.getDenoiseResultDataWithCA(whole, {}, false).first,
    };
    // A rotation resamples; a flip with unit scale takes the copy path. Both must give
    // what resampling the selected data gives.
    const CropDescription crops[] = {CropDescription({1, 1, 16, 12}, 15.0f, false, false),
                                     CropDescription({2, 1, 15, 12}, 0.0f, true, true),
                                     CropDescription({0, 0, 20, 14}, 180.0f, false, false)};
    for (const CropDescription& crop : crops) {
        const ImageTransformSettings s = settingsFor(size, crop);
        const ResizeParameters rp{crop.rect.size(), {0, 0, crop.rect.width, crop.rect.height}, true};
        for (int type = 0; type < 5; ++type) {
            const TransformComputer tc(s, Type(type));
            const auto got = tc.createTransformedRoi<_ImageData<RGB>, Image>(image, rp);
            const auto want = TransformComputer(s, Type::ImageData)
                                  .createTransformedRoi<_ImageData<RGB>, _ImageData<RGB>>(*expected[type], rp);
            ASSERT_TRUE(got && want);
            EXPECT_EQ(0, std::memcmp(got->data(), want->data(), want->byteCount())) << type << " " << crop.angle;
            auto updated = std::make_shared<_ImageData<RGB>>(rp.size, RGB{}, ColorProfileType::sRGB());
            tc.updateTransformedRoi(image, updated, _Rect<float>(rp.rect), kNoRegion);
            EXPECT_EQ(0, std::memcmp(updated->data(), want->data(), want->byteCount())) << type;
        }
    }
    // With both denoise flags set, the denoised types read the plain image data.
    ImageMetadata meta;
    meta.denoiseApplied = meta.denoiseUpToDate = true;
    image.setMetadata(meta);
    const ImageTransformSettings s = settingsFor(size, crops[0]);
    const ResizeParameters rp{{16, 12}, {0, 0, 16, 12}, true};
    const auto plain = TransformComputer(s, Type::ImageData).createTransformedRoi<_ImageData<RGB>, Image>(image, rp);
    for (Type t : {Type::DenoisedImage, Type::DenoisedImageFirst}) {
        const auto got = TransformComputer(s, t).createTransformedRoi<_ImageData<RGB>, Image>(image, rp);
        EXPECT_EQ(0, std::memcmp(got->data(), plain->data(), plain->byteCount()));
    }
    // An unknown type gives no data.
    EXPECT_FALSE((TransformComputer(s, Type(7)).createTransformedRoi<_ImageData<RGB>, Image>(image, rp)));
    auto untouched = std::make_shared<_ImageData<RGB>>(rp.size, RGB{1, 2, 3}, ColorProfileType::sRGB());
    TransformComputer(s, Type(7)).updateTransformedRoi(image, untouched, _Rect<float>(rp.rect), kNoRegion);
    EXPECT_EQ(untouched->at(0, 0), (RGB{1, 2, 3}));
}

TEST(TransformComputer, TiledMaskSources) {
    // 350 x 320: 2 x 2 tiles of 300, painted in three of them over a fill of 0.25.
    TiledMaskImage mask({350, 320}, 0.25f);
    const auto v = test::noise(350 * 320, 17);
    for (int y = 0; y < 320; ++y)
        for (int x = 0; x < 350; ++x)
            if (x < 120 || (x > 310 && y < 100)) mask.setValue(v[std::size_t(y) * 350 + x], x, y);
    ASSERT_EQ(mask.presentTileCount(), 3u);
    _ImageData<float> dense({350, 320}, ColorProfileType::None());
    for (int y = 0; y < 320; ++y)
        for (int x = 0; x < 350; ++x) dense.at(x, y) = mask.getValue(x, y);

    const ImageTransformSettings s = settingsFor({350, 320}, CropDescription({20, 10, 300, 280}, -27.0f, false, true));
    const TransformComputer tc(s, Type::ImageData);
    const ResizeParameters rp{{60, 56}, {0, 0, 300, 280}, true};
    const auto out = tc.createTransformedRoi<MaskImage, TiledMaskImage>(mask, rp);
    ASSERT_TRUE(out);
    EXPECT_EQ(out->size(), rp.size);
    // Same kernel, same values: bit for bit the rendition of the dense mask.
    const auto fromDense = tc.createTransformedRoi<_ImageData<float>, _ImageData<float>>(dense, rp);
    EXPECT_EQ(0, std::memcmp(out->data(), fromDense->data(), fromDense->byteCount()));
    EXPECT_TRUE(matches(*out,
                        referenceResample(toPlane(dense), 60, 56, s.getSamplingTransform(_Rect<float>(rp.rect), rp.size),
                                          SupersamplingPolicy::RotationOnly, true, {0.0}),
                        kValueTol));

    // An update of part of it: no supersampling, pixels outside untouched.
    std::shared_ptr<MaskImage> dst = std::make_shared<MaskImage>(rp.size, -1.0f);
    tc.updateTransformedRoi(mask, dst, _Rect<float>(rp.rect), {10, 10, 20, 30});
    const Plane plain = referenceResample(toPlane(dense), 60, 56, s.getSamplingTransform(_Rect<float>(rp.rect), rp.size),
                                          SupersamplingPolicy::RotationOnly, false, {0.0});
    for (int y = 0; y < 56; ++y)
        for (int x = 0; x < 60; ++x) {
            if (x >= 10 && x < 30 && y >= 10 && y < 40)
                EXPECT_NEAR(dst->at(x, y), plain.at(x, y, 0), kValueTol);
            else
                EXPECT_EQ(dst->at(x, y), -1.0f);
        }
}

}  // namespace
}  // namespace zorl
