// The resampler against a plain double-precision reference of the same rules: corner
// samples with their fallback, bilinear values with clamped neighbours, Halton
// supersampling by policy, background, clipped regions, the shortcut and Image sources.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <optional>
#include <variant>

#include <imageprocessing/transform_computer.h>
#include <zorl/core/image.h>
#include <zorl/core/mask_image.h>

#include "support/test_support.h"

namespace zorl {
namespace {

using RGB = PixelRGB<float>;
using Type = TransformComputer::DataSourceType;

// Float against double: positions differ by ~1e-5 px and sums of up to 24 samples by a
// few float ulps; values change by at most ~0.1 per pixel.
constexpr double kValueTol = 2e-5;
// Byte renditions round to the nearest byte: half a step, plus slack. (Truncating
// instead would miss by up to a whole step and fail.)
constexpr double kByteTol = 0.5 + 1e-3;

// ---- the reference -------------------------------------------------------------------

template <class P>
std::vector<double> values(const _ImageData<P>& img) {
    const auto* c = reinterpret_cast<const typename PixelTraits<P>::Channel*>(img.data());
    return std::vector<double>(c, c + img.pixelCount() * PixelTraits<P>::channels);
}

double radicalInverse(int n, int base) {
    double r = 0, f = 1.0 / base;
    for (; n > 0; n /= base, f /= base) r += (n % base) * f;
    return r;
}

// The rendition rp of img under settings s by the rules written out. RGB is scale-adaptive
// (round(min(2 s, 20)) Halton points from s >= 1.1), the other types rotation-only (10
// points when allowed and rotating); background 0.2 in the colour channels, else 0.
template <class P>
std::vector<double> reference(const _ImageData<P>& img, const ImageTransformSettings& s, const ResizeParameters& rp,
                              bool allow = true) {
    constexpr int n = PixelTraits<P>::channels;
    const int w = img.width(), h = img.height();
    const std::vector<double> src = values(img);
    const auto at = [&](int x, int y, int k) { return src[(std::size_t(y) * w + x) * n + k]; };
    const AffineTransform t = s.getSamplingTransform(_Rect<float>(rp.rect), rp.size);
    const double a = t.a, b = t.b, c = t.c, d = t.d, p = a * a + c * c, q = b * a + d * c, r = b * b + d * d;
    const double sv = std::sqrt((p + r) / 2 + std::sqrt((p - r) * (p - r) / 4 + q * q));
    const int halton = std::is_same_v<P, RGB> ? (sv >= 1.1 ? int(std::lround(std::min(2 * sv, 20.0))) : 0)
                                              : (allow && (std::fabs(b) > 1e-5 || std::fabs(c) > 1e-5) ? 10 : 0);
    std::vector<std::pair<double, double>> offsets = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
    for (int i = 1; i <= halton; ++i) offsets.push_back({radicalInverse(i, 2), radicalInverse(i, 3)});
    std::vector<double> out;
    for (int y = 0; y < rp.size.height; ++y)
        for (int x = 0; x < rp.size.width; ++x) {
            double sum[4] = {}, valid = 0;
            for (auto [ox, oy] : offsets) {
                const double px = a * (x + ox) + c * (y + oy) + t.tx, py = b * (x + ox) + d * (y + oy) + t.ty;
                const double ix = std::floor(px), iy = std::floor(py), fx = px - ix, fy = py - iy;
                if (ix < 0 || iy < 0 || ix >= w || iy >= h) continue;
                const int x0 = int(ix), y0 = int(iy), x1 = std::min(x0 + 1, w - 1), y1 = std::min(y0 + 1, h - 1);
                for (int k = 0; k < n; ++k)
                    sum[k] += (at(x0, y0, k) * (1 - fx) + at(x1, y0, k) * fx) * (1 - fy) +
                              (at(x0, y1, k) * (1 - fx) + at(x1, y1, k) * fx) * fy;
                if (++valid && halton == 0) break;  // no supersampling: the first valid sample
            }
            for (int k = 0; k < n; ++k) out.push_back(valid ? sum[k] / valid : (n >= 3 && k < 3) ? 0.2 : 0.0);
        }
    return out;
}

template <class P>
::testing::AssertionResult matches(const _ImageData<P>& got, const std::vector<double>& want, double tol) {
    const std::vector<double> g = values(got);
    for (std::size_t i = 0; i < g.size(); ++i)
        if (g.size() != want.size() || !(std::fabs(g[i] - want[i]) <= tol))
            return ::testing::AssertionFailure() << "value " << i << " of " << g.size() << ": " << g[i] << " vs " << want[i];
    return ::testing::AssertionSuccess();
}

template <class P>
bool sameBytes(const _ImageData<P>& a, const _ImageData<P>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.byteCount()) == 0;
}

// ---- test images and settings --------------------------------------------------------

template <class P>
std::shared_ptr<_ImageData<P>> noiseImage(_Size<int> size, uint32_t seed) {
    using C = typename PixelTraits<P>::Channel;
    const auto v = test::noise(std::size_t(size.area()) * PixelTraits<P>::channels, seed, 0.0f,
                               std::is_same_v<C, uint8_t> ? 255.0f : 1.0f);
    auto img = std::make_shared<_ImageData<P>>(size, ColorProfileType::sRGB());
    std::transform(v.begin(), v.end(), reinterpret_cast<C*>(img->data()), [](float f) { return C(f); });
    return img;
}

ImageTransformSettings settingsFor(_Size<int> canvas, const CropDescription& crop,
                                   std::optional<AffineTransform> extra = std::nullopt) {
    return {.canvasSize = canvas, .hasTransform = extra.has_value(), .transformParameters = extra.value_or(AffineTransform()),
            .crop = crop};
}

// A crop that frames the whole canvas without moving it: not the default, so no shortcut.
CropDescription wholeCanvas(_Size<int> canvas, float angle = 0.0f) {
    return CropDescription({0, 0, canvas.width, canvas.height}, angle, false, false);
}

template <class Out, class In>
std::shared_ptr<Out> create(const TransformComputer& tc, const In& src, const ResizeParameters& rp) {
    return tc.createTransformedRoi<Out, In>(src, rp);
}

// ---- tests -----------------------------------------------------------------------------

TEST(TransformComputer, SettingsAndResizeParameters) {
    ImageTransformSettings s{.canvasSize = {640, 480}, .region = {-0.5f, 1.9f, 10.7f, 3.2f}, .workingSize = {33, 7}};
    // Each component of the region truncated toward zero.
    EXPECT_EQ(TransformComputer(s, Type::ImageData).getWorkingResizeParameters(),
              (ResizeParameters{{33, 7}, {0, 1, 10, 3}, true}));
    s.hasTransform = 1;  // transform parameters in use must hold an AffineTransform
    s.transformParameters = std::monostate{};
    EXPECT_THROW((create<_ImageData<RGB>>(TransformComputer(s, Type::ImageData), *noiseImage<RGB>({8, 8}, 1),
                                          {{4, 4}, {0, 0, 8, 8}, true})),
                 std::bad_variant_access);
}

TEST(TransformComputer, OffsetCountsByPolicy) {
    const auto SA = SupersamplingPolicy::ScaleAdaptive, RO = SupersamplingPolicy::RotationOnly;
    const auto scale = [](float a, float d) { return AffineTransform::makeScale(a, d); };
    const AffineTransform quarter = AffineTransform::makeRotation(std::numbers::pi / 2);
    const struct { SupersamplingPolicy policy; AffineTransform t; bool allow, centre; int halton; } cases[] = {
        {SA, scale(3, 3), true, false, 6}, {SA, scale(12, 12), true, false, 20}, {SA, scale(1.05f, 1.05f), true, false, 0},
        {SA, scale(1.1f, 1), true, false, 2}, {SA, quarter, true, false, 0}, {SA, scale(3, 3), false, true, 6},
        {RO, quarter, true, false, 10}, {RO, quarter, false, false, 0}, {RO, scale(5, 5), true, false, 0},
        {RO, AffineTransform::makeRotation(0.2), true, true, 10},
    };
    for (const auto& c : cases) {
        const SampleOffsets o = sampling::sampleOffsets(c.policy, c.t, c.allow, c.centre);
        EXPECT_EQ(o.count, (c.centre ? 1 : 4) + c.halton) << int(c.policy) << " " << c.t.a << " " << c.t.b;
        EXPECT_EQ(o.supersampled, c.halton > 0);
        EXPECT_EQ(o.points[0], c.centre ? _Point<float>(0.5f, 0.5f) : _Point<float>(0, 0));
        // The last point: Halton index n - 1, else the last corner (0, 1) or the centre.
        EXPECT_FLOAT_EQ(o.points[o.count - 1].y, c.halton ? float(radicalInverse(c.halton, 3)) : c.centre ? 0.5f : 1.0f);
    }
}

// One rendition of a 24 x 18 noise source against the reference, the same on one thread
// as on many; load state and profile are the source's; no memory is left behind.
template <class P>
void checkAgainstReference(const CropDescription& crop, const ResizeParameters& rp,
                           std::optional<AffineTransform> extra = std::nullopt) {
    const auto src = noiseImage<P>({24, 18}, 7);
    src->setLoadState(ImageLoadState::Preview);
    const ImageTransformSettings s = settingsFor({24, 18}, crop, extra);
    const TransformComputer tc(s, Type::ImageData);
    test::MemoryBalance balance;
    {
        std::shared_ptr<_ImageData<P>> out = create<_ImageData<P>>(tc, *src, rp), one;
        test::onOneThread([&] { one = create<_ImageData<P>>(tc, *src, rp); });
        ASSERT_TRUE(out && one);
        EXPECT_TRUE(matches(*out, reference(*src, s, rp), std::is_same_v<P, uint8_t> ? kByteTol : kValueTol));
        EXPECT_TRUE(sameBytes(*out, *one));
        EXPECT_TRUE(out->getLoadState() == ImageLoadState::Preview && sameProfile(out->colorProfile(), src->colorProfile()));
    }
    EXPECT_TRUE(balance.balanced());
}

TEST(TransformComputer, CreateMatchesReference) {
    const _Size<int> c{24, 18};
    const _Rect<int> all{0, 0, 24, 18};
    // RGB, scale-adaptive: s = 3, s = 1 at a quarter turn, enlarged and flipped, an extra
    // shearing transform.
    checkAgainstReference<RGB>(wholeCanvas(c), {{8, 6}, all, true});
    checkAgainstReference<RGB>(wholeCanvas(c, 90.0f), {c, all, true});
    checkAgainstReference<RGB>(CropDescription({3, 2, 12, 9}, -20.0f, true, false), {{31, 23}, {0, 0, 12, 9}, true});
    checkAgainstReference<RGB>(CropDescription(), {{10, 9}, {1, 1, 20, 15}, true},
                               AffineTransform(1.1f, 0.15f, -0.3f, 0.8f, 2.5f, -1.25f));
    // Rotation-only: RGBA reaching outside the canvas, bytes (gray: the update test).
    checkAgainstReference<PixelRGBA<float>>(CropDescription({-2, 1, 20, 16}, 45.0f, false, true), {{20, 15}, all, true});
    checkAgainstReference<uint8_t>(wholeCanvas(c, 12.0f), {{20, 15}, all, true});

    // The shortcut: no crop, no transform, a reduction inside the source is its resize.
    const auto src = noiseImage<RGB>({30, 20}, 3);
    const TransformComputer tc(settingsFor({30, 20}, CropDescription()), Type::ImageData);
    const ResizeParameters rp{{10, 5}, {3, 2, 21, 14}, true}, outside{{10, 5}, {-1, 0, 21, 14}, true};
    EXPECT_TRUE(sameBytes(*create<_ImageData<RGB>>(tc, *src, rp), *src->resize(rp.size, rp.rect, true)));
    // A region reaching outside resamples instead; an empty size gives nothing.
    EXPECT_TRUE(matches(*create<_ImageData<RGB>>(tc, *src, outside), reference(*src, tc.settings(), outside), kValueTol));
    EXPECT_FALSE((create<_ImageData<RGB>>(tc, *src, {{0, 0}, {0, 0, 5, 5}, true})));
}

TEST(TransformComputer, CornerFallbackAndBackground) {
    // A 4 x 2 source under a shift by dx: destination x samples x - dx.
    _ImageData<RGB> src({4, 2}, ColorProfileType::sRGB());
    for (int i = 0; i < 8; ++i) src.data()[i] = {float(i % 4), float(10 * (i / 4)), 1.0f};
    const auto shifted = [&](float dx) {
        const auto s = settingsFor({4, 2}, wholeCanvas({4, 2}), AffineTransform::makeTranslation(dx, 0));
        return create<_ImageData<RGB>>(TransformComputer(s, Type::ImageData), src, {{4, 2}, {0, 0, 4, 2}, true});
    };
    const auto half = shifted(0.5f);
    EXPECT_FLOAT_EQ(half->at(0, 0).r, 0.5f);   // (-0.5, 0) outside: corner (0.5, 0) stands in
    EXPECT_FLOAT_EQ(half->at(2, 0).r, 1.5f);   // first corner (1.5, 0)
    EXPECT_EQ(half->at(3, 1), (RGB{2.5f, 10.0f, 1.0f}));  // right neighbour of column 3 and y + 1 clamp
    const auto away = shifted(-5.0f);          // no valid sample in the right half
    for (int x = 0; x < 4; ++x) EXPECT_EQ(away->at(x, 1), (RGB{0.2f, 0.2f, 0.2f}));
}

TEST(TransformComputer, UpdateRegionsClipAndTile) {
    const _Size<int> canvas{36, 27};
    const auto src = noiseImage<RGB>(canvas, 11);
    const ImageTransformSettings s = settingsFor(canvas, CropDescription({2, 1, 30, 24}, 25.0f, false, true));
    const TransformComputer tc(s, Type::ImageData);
    const ResizeParameters rp{{13, 11}, {0, 0, 30, 24}, true};  // s > 2: supersampled
    const _Rect<float> region(rp.rect);
    const auto whole = create<_ImageData<RGB>>(tc, *src, rp);
    const RGB sentinel{-7, -7, -7};
    auto tiled = std::make_shared<_ImageData<RGB>>(rp.size, sentinel, ColorProfileType::sRGB());
    auto part = std::make_shared<_ImageData<RGB>>(*tiled);
    // Tiles that cover the rendition, uneven sizes, one reaching past the edge.
    for (const _Rect<int> r : {_Rect<int>{0, 0, 5, 4}, {5, 0, 20, 4}, {0, 4, 7, 7}, {7, 4, 6, 30}})
        tc.updateTransformedRoi(*src, tiled, region, r);
    EXPECT_TRUE(sameBytes(*tiled, *whole));

    // Regions wholly outside write nothing, not even the load state; one partly outside
    // is clipped, and the source's load state is copied.
    part->setLoadState(ImageLoadState::Thumbnail);
    for (const _Rect<int> r : {_Rect<int>{20, 20, 4, 4}, {-3, -50, 3, 100}}) tc.updateTransformedRoi(*src, part, region, r);
    EXPECT_EQ(part->getLoadState(), ImageLoadState::Thumbnail);
    tc.updateTransformedRoi(*src, part, region, {-3, 8, 6, 10});
    EXPECT_EQ(part->getLoadState(), ImageLoadState::Full);
    for (int y = 0; y < rp.size.height; ++y)
        for (int x = 0; x < rp.size.width; ++x)
            EXPECT_EQ(part->at(x, y), (x < 3 && y >= 8) ? whole->at(x, y) : sentinel) << x << "," << y;

    // Rotation-only renditions: updates do not supersample. A null destination is logged.
    const auto gray = noiseImage<float>(canvas, 5);
    auto grayOut = std::make_shared<_ImageData<float>>(rp.size, -1.0f, ColorProfileType::sRGB());
    tc.updateTransformedRoi(*gray, grayOut, region, kNoRegion);
    EXPECT_TRUE(matches(*grayOut, reference(*gray, s, rp, false), kValueTol));
    test::LogCapture log;
    grayOut.reset();
    tc.updateTransformedRoi(*gray, grayOut, region, kNoRegion);
    const std::string line =
        "void __cdecl zorl::TransformComputer::updateTransformedRoi<class zorl::_ImageData<float>,class zorl::_ImageData<"
        "float>>(const class zorl::_ImageData<float> &,class std::shared_ptr<class zorl::_ImageData<float> > &,const "
        "struct zorl::_Rect<float> &,const struct zorl::_Rect<int> &) const: destination is null";
    EXPECT_EQ(log.lines(), std::vector<std::string>{line});
    EXPECT_EQ(log.types(), std::vector<LogMessageType>{LogMessageType(3)});
}

TEST(TransformComputer, ImageSourcesByDataSourceType) {
    const _Size<int> size{20, 14};
    Image image(noiseImage<RGB>(size, 21));
    image.getModifiedImageData()->at(3, 3) = {5, 5, 5};  // an edit that only imageData shows
    const ResizeParameters whole{size, {0, 0, 20, 14}, true};
    const DenoisedResult denoised = image.getDenoiseResultDataWithCA(whole, {}, false);
    const std::shared_ptr<const _ImageData<RGB>> data[] = {
        image.imageData(size, whole.rect, true), image.originalImageData(whole), image.developedOriginalImageData(whole),
        denoised.second, denoised.first};
    // A rotation resamples; a flip at unit scale takes the copy path. Both must give what
    // resampling the selected data gives, created or updated.
    for (const CropDescription& crop :
         {CropDescription({1, 1, 16, 12}, 15.0f, false, false), CropDescription({2, 1, 15, 12}, 0.0f, true, true)}) {
        const ImageTransformSettings s = settingsFor(size, crop);
        const ResizeParameters rp{crop.rect.size(), {0, 0, crop.rect.width, crop.rect.height}, true};
        for (int type = 0; type < 5; ++type) {
            const TransformComputer tc(s, Type(type));
            const auto want = create<_ImageData<RGB>>(TransformComputer(s, Type::ImageData), *data[type], rp);
            auto updated = std::make_shared<_ImageData<RGB>>(rp.size, RGB{}, ColorProfileType::sRGB());
            tc.updateTransformedRoi(image, updated, _Rect<float>(rp.rect), kNoRegion);
            EXPECT_TRUE(sameBytes(*create<_ImageData<RGB>>(tc, image, rp), *want) && sameBytes(*updated, *want))
                << type << " " << crop.angle;
        }
    }
    // An unknown type gives no data and writes nothing.
    const ImageTransformSettings s = settingsFor(size, wholeCanvas(size, 15.0f));
    EXPECT_FALSE((create<_ImageData<RGB>>(TransformComputer(s, Type(7)), image, whole)));
    auto untouched = std::make_shared<_ImageData<RGB>>(size, RGB{1, 2, 3}, ColorProfileType::sRGB());
    TransformComputer(s, Type(7)).updateTransformedRoi(image, untouched, _Rect<float>(whole.rect), kNoRegion);
    EXPECT_TRUE(sameBytes(*untouched, _ImageData<RGB>(size, RGB{1, 2, 3}, ColorProfileType::sRGB())));
}

}  // namespace
}  // namespace zorl
