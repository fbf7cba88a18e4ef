// Affine transforms, crop descriptions, transform settings and the document image of
// the core library, checked against plain double-precision formulas written here.

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <variant>

#include <zorl/core/affine_transform.h>
#include <zorl/core/crop_description.h>
#include <zorl/core/image.h>
#include <zorl/core/image_transform_settings.h>

namespace zorl {
namespace {

// Fields are stored as float after double arithmetic: a few float ulps of the largest
// magnitude involved (coordinates up to ~100 px).
constexpr double kGeomTol = 1e-4;

struct P2 {
    double x, y;
};

P2 apply(const AffineTransform& t, P2 p) { return {t.a * p.x + t.c * p.y + t.tx, t.b * p.x + t.d * p.y + t.ty}; }

void expectNear(P2 got, P2 want, const char* what) {
    EXPECT_NEAR(got.x, want.x, kGeomTol) << what;
    EXPECT_NEAR(got.y, want.y, kGeomTol) << what;
}

// The crop map written out: mirror about the centre, rotate about it, move the crop
// origin to 0.
P2 cropReference(const CropDescription& c, _Size<int> canvas, P2 p) {
    const double cx = (canvas.width - 1) / 2.0, cy = (canvas.height - 1) / 2.0, th = c.angle * std::numbers::pi / 180.0;
    const double x = c.flipHorizontal ? cx - p.x : p.x - cx, y = c.flipVertical ? cy - p.y : p.y - cy;
    return {std::cos(th) * x - std::sin(th) * y + cx - c.rect.x, std::sin(th) * x + std::cos(th) * y + cy - c.rect.y};
}

TEST(AffineTransform, CompositionOrderAndInverse) {
    AffineTransform t;
    t.translate(3, -2);
    t.scale(2, 5);
    expectNear(apply(t, {1.5, 4}), {1.5 * 2 + 3, 4 * 5 - 2}, "scale, then translate");
    // append acts after: a quarter turn, then the translation.
    AffineTransform r = AffineTransform::makeRotation(std::numbers::pi / 2);
    EXPECT_TRUE(r.a == 0 && r.b == 1 && r.c == -1 && r.d == 0);
    r.append(AffineTransform::makeTranslation(10, 0));
    EXPECT_EQ(r.transformPoint({1, 0}), _Point<float>(10, 1));  // (1, 0) -> (0, 1) -> (10, 1)

    AffineTransform u = AffineTransform::makeRotation(0.3);
    u.scale(1.7f, 0.6f);
    u.translate(5, -9);
    AffineTransform inv = u;
    ASSERT_TRUE(inv.invert());
    for (P2 p : {P2{0, 0}, P2{13.25, -7.5}, P2{100, 40}}) expectNear(apply(inv, apply(u, p)), p, "round trip");
    AffineTransform singular(2, 4, 1, 2, 3, 3);  // parallel columns: determinant 0
    EXPECT_FALSE(singular.invert());
    EXPECT_EQ(singular, AffineTransform(2, 4, 1, 2, 3, 3));  // left as it was
    EXPECT_TRUE(singular.inverted().isIdentity());
    u.makeIdentity();
    u.tx = 1e-6f;
    EXPECT_FALSE(u.isIdentity());  // exact, no tolerance
}

TEST(AffineTransform, EnclosingRectAndMaxScale) {
    AffineTransform rot = AffineTransform::makeRotation(0.5);
    rot.append(AffineTransform::makeTranslation(7.3f, -2.2f));
    const std::pair<AffineTransform, _Rect<int>> cases[] = {{rot, {2, 3, 10, 6}},
                                                            {AffineTransform(-1, 0, 0, 1, 20, 0), {4, 1, 5, 5}},
                                                            {AffineTransform::makeScale(0.5f, 0.5f), {3, 3, 5, 4}}};
    for (const auto& [t, in] : cases) {
        double x0 = 1e9, y0 = 1e9, x1 = -1e9, y1 = -1e9;
        for (int corner = 0; corner < 4; ++corner) {  // (x, y), (right, y), (right, bottom), (x, bottom)
            const P2 q = apply(t, {double(corner % 3 ? in.right() : in.x), double(corner < 2 ? in.y : in.bottom())});
            x0 = std::min(x0, q.x), y0 = std::min(y0, q.y), x1 = std::max(x1, q.x), y1 = std::max(y1, q.y);
        }
        const int left = int(std::floor(x0)), top = int(std::floor(y0));
        EXPECT_EQ(t.enclosingRect(in), _Rect<int>(left, top, int(std::ceil(x1)) - left, int(std::ceil(y1)) - top));
    }
    // Corners a hair off an integer (float error) do not grow the rectangle.
    const AffineTransform nearly(1.0000001f, 0, 0, 0.9999999f, 0, 0);
    EXPECT_EQ(nearly.enclosingRect({0, 0, 10, 10}), _Rect<int>(0, 0, 10, 10));

    AffineTransform t = AffineTransform::makeRotation(1.1);
    t.scale(3, 2);  // singular values 3 and 2, whatever the rotation
    EXPECT_NEAR(t.maxScale(), 3.0, 1e-5);
    EXPECT_NEAR(AffineTransform(1, 0, 1, 1, 0, 0).maxScale(), (1 + std::sqrt(5.0)) / 2, 1e-5);  // a shear
}

TEST(CropDescription, MapsAgainstReference) {
    EXPECT_TRUE(CropDescription().getAffineTransformForCanvas({640, 480}).isIdentity());
    const _Size<int> canvas{41, 30};
    const CropDescription cases[] = {
        {{5, 3, 20, 20}, 0.0f, false, false},  {{0, 0, 41, 30}, 0.0f, true, false},
        {{0, 0, 41, 30}, 0.0f, false, true},   {{2, 1, 30, 20}, 17.0f, false, false},
        {{-4, 6, 30, 25}, -33.0f, true, true}, {{0, 0, 30, 41}, 90.0f, true, false},
    };
    for (const CropDescription& c : cases) {
        EXPECT_EQ(c.getCropRect(), c.rect);
        const AffineTransform t = c.getAffineTransformForCanvas(canvas);
        for (P2 p : {P2{0, 0}, P2{40, 0}, P2{17.5, 11.25}, P2{40, 29}})
            expectNear(apply(t, p), cropReference(c, canvas, p), "crop");
    }
    // Flips and half turns map pixel positions onto pixel positions exactly.
    EXPECT_EQ(cases[1].getAffineTransformForCanvas(canvas).transformPoint({0, 7}), _Point<float>(40, 7));
    const CropDescription halfTurn({0, 0, 41, 30}, 180.0f, false, false);
    EXPECT_EQ(halfTurn.getAffineTransformForCanvas(canvas).transformPoint({3, 2}), _Point<float>(37, 27));
}

TEST(ImageTransformSettings, SamplingAndCombinedTransforms) {
    const AffineTransform extra(1.2f, 0.1f, -0.2f, 0.9f, 3, -1);
    for (int hasTransform : {0, 1}) {
        ImageTransformSettings s;
        s.canvasSize = {64, 48};
        s.region = {4.4f, 2.6f, 40.0f, 30.0f};
        s.workingSize = {20, 15};
        s.crop = CropDescription({3, 2, 50, 40}, 21.0f, true, false);
        s.hasTransform = hasTransform;
        s.transformParameters = extra;
        // canvas(sampling(q)) = q * (round(w) / W, round(h) / H) + (round(x), round(y)).
        const AffineTransform sampling = s.getSamplingTransform(s.region, s.workingSize);
        for (P2 q : {P2{0, 0}, P2{19, 0}, P2{7.5, 14}}) {
            const P2 src = hasTransform ? apply(extra, apply(sampling, q)) : apply(sampling, q);
            expectNear(cropReference(s.crop, s.canvasSize, src), {q.x * 2 + 4, q.y * 2 + 3}, "sampling");
            const _Point<float> viaPoint = s.transformPointToImageCoordinateSystem({float(q.x), float(q.y)});
            expectNear({viaPoint.x, viaPoint.y}, apply(sampling, q), "point");
        }
        // The combined transform (source -> working) is the sampling transform's inverse.
        const AffineTransform combined = s.getCombinedTransform();
        for (P2 p : {P2{0, 0}, P2{30, 20}, P2{63, 47}}) expectNear(apply(sampling, apply(combined, p)), p, "combined");
        s.transformParameters = std::monostate{};  // read only when the flag is set
        if (hasTransform) EXPECT_THROW(s.getCombinedTransform(), std::bad_variant_access);
        else EXPECT_NO_THROW(s.getCombinedTransform());
    }
    EXPECT_TRUE(ImageTransformSettings().getCombinedTransform().isIdentity());  // singular: no working size
}

TEST(Image, DataKindsCanBeToldApart) {
    auto original = std::make_shared<_ImageData<PixelRGB<float>>>(_Size<int>{9, 7}, ColorProfileType::sRGB());
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 9; ++x) original->at(x, y) = {0.02f * x, 0.03f * y, 0.5f + 0.01f * ((x * 7 + y * 3) % 11)};
    Image image(original);
    const ResizeParameters whole{{9, 7}, {0, 0, 9, 7}, true};
    image.getModifiedImageData()->at(4, 4) = {9, 9, 9};  // an edit: only imageData sees it
    EXPECT_EQ(image.imageData(whole.size, whole.rect, true)->at(4, 4).r, 9.0f);
    EXPECT_EQ(image.originalImageData(whole)->at(4, 4), original->at(4, 4));
    EXPECT_FLOAT_EQ(image.developedOriginalImageData(whole)->at(2, 3).g, original->at(2, 3).g * Image::kDevelopGain);
    // Denoised: the 3 x 3 box mean with edge pixels repeated (corner (0, 0) here).
    double mean = 0;
    for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) mean += original->at(std::max(dx, 0), std::max(dy, 0)).b / 9;
    const DenoisedResult denoised = image.getDenoiseResultDataWithCA(whole, DenoiseRaw::params_t{}, false);
    EXPECT_NEAR(denoised.first->at(0, 0).b, mean, 1e-6);
    EXPECT_NEAR(denoised.second->at(0, 0).b, mean * Image::kDevelopGain, 1e-6);
    // A region at another size is a resize of that region.
    const auto part = image.originalImageData({{3, 2}, {2, 2, 6, 4}, true});
    EXPECT_EQ(part->at(2, 1), original->resize({3, 2}, {2, 2, 6, 4}, true)->at(2, 1));
    Image empty(nullptr);
    EXPECT_EQ(empty.status(), BaseImage::Status::Empty);
    EXPECT_FALSE(empty.imageData({1, 1}, {}, true));
}

}  // namespace
}  // namespace zorl
