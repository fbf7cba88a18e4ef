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

P2 apply(const AffineTransform& t, P2 p) {
    return {t.a * p.x + t.c * p.y + t.tx, t.b * p.x + t.d * p.y + t.ty};
}

// The crop map written out: mirror about the centre, rotate about it, move the crop
// origin to 0.
P2 cropReference(const CropDescription& c, _Size<int> canvas, P2 p) {
    const double cx = (canvas.width - 1) / 2.0, cy = (canvas.height - 1) / 2.0;
    double x = p.x - cx, y = p.y - cy;
    if (c.flipHorizontal) x = -x;
    if (c.flipVertical) y = -y;
    const double th = c.angle * std::numbers::pi / 180.0;
    const double rx = std::cos(th) * x - std::sin(th) * y, ry = std::sin(th) * x + std::cos(th) * y;
    return {rx + cx - c.rect.x, ry + cy - c.rect.y};
}

TEST(AffineTransform, CompositionOrder) {
    AffineTransform t;
    t.translate(3, -2);
    t.scale(2, 5);
    const P2 p = apply(t, {1.5, 4});  // p * s + o
    EXPECT_NEAR(p.x, 1.5 * 2 + 3, kGeomTol);
    EXPECT_NEAR(p.y, 4 * 5 - 2, kGeomTol);

    // append acts after: rotate 90 degrees, then translate.
    AffineTransform r = AffineTransform::makeRotation(std::numbers::pi / 2);
    EXPECT_EQ(r.a, 0.0f);
    EXPECT_EQ(r.b, 1.0f);
    EXPECT_EQ(r.c, -1.0f);
    r.append(AffineTransform::makeTranslation(10, 0));
    const _Point<float> q = r.transformPoint({1, 0});  // (1, 0) -> (0, 1) -> (10, 1)
    EXPECT_FLOAT_EQ(q.x, 10);
    EXPECT_FLOAT_EQ(q.y, 1);
}

TEST(AffineTransform, InvertRoundTripAndSingular) {
    AffineTransform t = AffineTransform::makeRotation(0.3);
    t.scale(1.7f, 0.6f);
    t.translate(5, -9);
    AffineTransform inv = t;
    ASSERT_TRUE(inv.invert());
    for (P2 p : {P2{0, 0}, P2{13.25, -7.5}, P2{100, 40}}) {
        const P2 back = apply(inv, apply(t, p));
        EXPECT_NEAR(back.x, p.x, kGeomTol);
        EXPECT_NEAR(back.y, p.y, kGeomTol);
    }
    AffineTransform singular(2, 4, 1, 2, 3, 3);  // columns parallel: determinant 0
    const AffineTransform before = singular;
    EXPECT_FALSE(singular.invert());
    EXPECT_EQ(singular, before);
    EXPECT_TRUE(singular.inverted().isIdentity());
}

TEST(AffineTransform, IdentityAndEquality) {
    AffineTransform t(2, 0, 0, 2, 1, 1);
    EXPECT_FALSE(t.isIdentity());
    EXPECT_NE(t, AffineTransform());
    t.makeIdentity();
    EXPECT_TRUE(t.isIdentity());
    EXPECT_FALSE(t != AffineTransform());
    AffineTransform u;
    u.tx = 1e-6f;
    EXPECT_FALSE(u.isIdentity());
}

TEST(AffineTransform, EnclosingRect) {
    struct Case {
        AffineTransform t;
        _Rect<int> in;
    };
    AffineTransform rot = AffineTransform::makeRotation(0.5);
    rot.append(AffineTransform::makeTranslation(7.3f, -2.2f));
    AffineTransform flip(-1, 0, 0, 1, 20, 0);
    AffineTransform half(0.5f, 0, 0, 0.5f, 0, 0);
    for (const Case& c : {Case{rot, {2, 3, 10, 6}}, Case{flip, {4, 1, 5, 5}}, Case{half, {3, 3, 5, 4}}}) {
        double x0 = 1e9, y0 = 1e9, x1 = -1e9, y1 = -1e9;
        for (P2 p : {P2{double(c.in.x), double(c.in.y)}, P2{double(c.in.right()), double(c.in.y)},
                     P2{double(c.in.right()), double(c.in.bottom())}, P2{double(c.in.x), double(c.in.bottom())}}) {
            const P2 q = apply(c.t, p);
            x0 = std::min(x0, q.x), y0 = std::min(y0, q.y), x1 = std::max(x1, q.x), y1 = std::max(y1, q.y);
        }
        const _Rect<int> expected(int(std::floor(x0)), int(std::floor(y0)), int(std::ceil(x1) - std::floor(x0)),
                                  int(std::ceil(y1) - std::floor(y0)));
        EXPECT_EQ(c.t.enclosingRect(c.in), expected);
    }
    // Corners a hair off an integer (float error) do not grow the rectangle.
    AffineTransform nearly(1.0000001f, 0, 0, 0.9999999f, 0, 0);
    EXPECT_EQ(nearly.enclosingRect({0, 0, 10, 10}), _Rect<int>(0, 0, 10, 10));
}

TEST(AffineTransform, MaxScale) {
    AffineTransform t = AffineTransform::makeRotation(1.1);
    t.scale(3, 2);  // singular values 3 and 2, whatever the rotation
    EXPECT_NEAR(t.maxScale(), 3.0, 1e-5);
    EXPECT_NEAR(AffineTransform(1, 0, 1, 1, 0, 0).maxScale(), (1 + std::sqrt(5.0)) / 2, 1e-5);  // a shear
}

TEST(CropDescription, DefaultIsIdentityAndEquality) {
    EXPECT_TRUE(CropDescription().getAffineTransformForCanvas({640, 480}).isIdentity());
    const CropDescription base({10, 20, 100, 50}, 12.5f, true, false);
    CropDescription c = base;
    EXPECT_EQ(c, base);
    c.rect.width = 101;
    EXPECT_NE(c, base);
    c = base, c.angle = 12.6f;
    EXPECT_NE(c, base);
    c = base, c.flipHorizontal = false;
    EXPECT_NE(c, base);
    c = base, c.flipVertical = true;
    EXPECT_NE(c, base);
    EXPECT_EQ(base.getCropRect(), _Rect<int>(10, 20, 100, 50));
}

TEST(CropDescription, MapsAgainstReference) {
    const _Size<int> canvas{41, 30};
    const CropDescription cases[] = {
        {{5, 3, 20, 20}, 0.0f, false, false},  {{0, 0, 41, 30}, 0.0f, true, false},
        {{0, 0, 41, 30}, 0.0f, false, true},   {{2, 1, 30, 20}, 17.0f, false, false},
        {{-4, 6, 30, 25}, -33.0f, true, true}, {{0, 0, 30, 41}, 90.0f, true, false},
    };
    for (const CropDescription& c : cases) {
        const AffineTransform t = c.getAffineTransformForCanvas(canvas);
        for (P2 p : {P2{0, 0}, P2{40, 0}, P2{17.5, 11.25}, P2{40, 29}}) {
            const P2 got = apply(t, p), want = cropReference(c, canvas, p);
            EXPECT_NEAR(got.x, want.x, kGeomTol) << c.angle;
            EXPECT_NEAR(got.y, want.y, kGeomTol) << c.angle;
        }
    }
    // Flips and half turns map pixel positions onto pixel positions exactly.
    const AffineTransform flip = cases[1].getAffineTransformForCanvas(canvas);
    EXPECT_EQ(flip.transformPoint({0, 7}), _Point<float>(40, 7));
    const AffineTransform half = CropDescription({0, 0, 41, 30}, 180.0f, false, false).getAffineTransformForCanvas(canvas);
    EXPECT_EQ(half.transformPoint({3, 2}), _Point<float>(37, 27));
}

ImageTransformSettings sampleSettings() {
    ImageTransformSettings s;
    s.canvasSize = {64, 48};
    s.region = {4.4f, 2.6f, 40.0f, 30.0f};
    s.workingSize = {20, 15};
    s.crop = CropDescription({3, 2, 50, 40}, 21.0f, true, false);
    return s;
}

TEST(ImageTransformSettings, EqualityCoversEveryMember) {
    const ImageTransformSettings base = sampleSettings();
    std::vector<ImageTransformSettings> changed(6, base);
    changed[0].canvasSize.width += 1;
    changed[1].region.x += 0.5f;
    changed[2].workingSize.height += 1;
    changed[3].hasTransform = 1;
    changed[4].transformParameters = AffineTransform(2, 0, 0, 2, 0, 0);
    changed[5].crop.angle += 1;
    EXPECT_EQ(base, sampleSettings());
    for (const auto& s : changed) EXPECT_NE(s, base);
    ImageTransformSettings other = base;
    other.transformParameters = std::monostate{};
    EXPECT_NE(other, base);
}

TEST(ImageTransformSettings, SamplingAndCombinedTransforms) {
    for (int hasTransform : {0, 1}) {
        ImageTransformSettings s = sampleSettings();
        s.hasTransform = hasTransform;
        const AffineTransform extra(1.2f, 0.1f, -0.2f, 0.9f, 3, -1);
        s.transformParameters = extra;
        const AffineTransform sampling = s.getSamplingTransform(s.region, s.workingSize);
        // canvas(sampling(q)) = q * (round(w) / W, round(h) / H) + (round(x), round(y)).
        for (P2 q : {P2{0, 0}, P2{19, 0}, P2{7.5, 14}}) {
            P2 src = apply(sampling, q);
            if (hasTransform) src = apply(extra, src);
            const P2 canvas = cropReference(s.crop, s.canvasSize, src);
            EXPECT_NEAR(canvas.x, q.x * 40.0 / 20 + 4, kGeomTol);
            EXPECT_NEAR(canvas.y, q.y * 30.0 / 15 + 3, kGeomTol);
            const _Point<float> viaPoint = s.transformPointToImageCoordinateSystem({float(q.x), float(q.y)});
            EXPECT_NEAR(viaPoint.x, apply(sampling, q).x, kGeomTol);
        }
        const AffineTransform combined = s.getCombinedTransform();
        for (P2 p : {P2{0, 0}, P2{30, 20}}) {
            const P2 back = apply(sampling, apply(combined, p));
            EXPECT_NEAR(back.x, p.x, kGeomTol);
            EXPECT_NEAR(back.y, p.y, kGeomTol);
        }
    }
    ImageTransformSettings empty;
    EXPECT_TRUE(empty.getCombinedTransform().isIdentity());  // singular: no working size
    ImageTransformSettings bad = sampleSettings();
    bad.hasTransform = 1;
    bad.transformParameters = std::monostate{};
    EXPECT_THROW(bad.getCombinedTransform(), std::bad_variant_access);
    bad.hasTransform = 0;  // unused parameters are not read
    EXPECT_NO_THROW(bad.getCombinedTransform());
}

std::shared_ptr<_ImageData<PixelRGB<float>>> ramp(_Size<int> size) {
    auto img = std::make_shared<_ImageData<PixelRGB<float>>>(size, ColorProfileType::sRGB());
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x)
            img->at(x, y) = {0.02f * x, 0.03f * y, 0.5f + 0.01f * ((x * 7 + y * 3) % 11)};
    return img;
}

TEST(Image, DataKindsFollowTheStandIns) {
    const auto original = ramp({9, 7});
    Image image(original);
    EXPECT_EQ(image.status(), BaseImage::Status::Loaded);
    EXPECT_EQ(image.size(), _Size<int>(9, 7));
    EXPECT_EQ(image.rect(), _Rect<int>(0, 0, 9, 7));
    EXPECT_TRUE(sameProfile(image.colorProfile(), ColorProfileType::sRGB()));

    const ResizeParameters whole{{9, 7}, {0, 0, 9, 7}, true};
    image.getModifiedImageData()->at(4, 4) = {9, 9, 9};  // an edit: only imageData sees it
    const auto plain = image.imageData(whole.size, whole.rect, true);
    const auto orig = image.originalImageData(whole);
    const auto developed = image.developedOriginalImageData(whole);
    const DenoisedResult denoised = image.getDenoiseResultDataWithCA(whole, DenoiseRaw::params_t{}, false);
    ASSERT_TRUE(plain && orig && developed && denoised.first && denoised.second);
    EXPECT_EQ(plain->at(4, 4).r, 9.0f);
    EXPECT_EQ(orig->at(4, 4), original->at(4, 4));
    for (int y = 0; y < 7; ++y) {
        for (int x = 0; x < 9; ++x) {
            const PixelRGB<float> o = original->at(x, y);
            EXPECT_FLOAT_EQ(developed->at(x, y).g, o.g * Image::kDevelopGain);
            double mean = 0;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) mean += original->at(std::clamp(x + dx, 0, 8), std::clamp(y + dy, 0, 6)).b;
            EXPECT_NEAR(denoised.first->at(x, y).b, mean / 9, 1e-6);
            EXPECT_NEAR(denoised.second->at(x, y).b, mean / 9 * Image::kDevelopGain, 1e-6);
        }
    }
    // A region at another size is a resize of that region.
    const auto part = image.originalImageData({{3, 2}, {2, 2, 6, 4}, true});
    ASSERT_TRUE(part);
    EXPECT_EQ(part->size(), _Size<int>(3, 2));
    const auto expected = original->resize({3, 2}, {2, 2, 6, 4}, true);
    EXPECT_EQ(part->at(2, 1), expected->at(2, 1));

    _Rect<int> notified{};
    image.setUpdateCallback([&](const _Rect<int>& r) { notified = r; });
    image.notifyModified({1, 2, 3, 4});
    EXPECT_EQ(notified, _Rect<int>(1, 2, 3, 4));

    Image empty(nullptr);
    EXPECT_EQ(empty.status(), BaseImage::Status::Empty);
    EXPECT_FALSE(empty.imageData({1, 1}, {}, true));
    EXPECT_FALSE(empty.getDenoiseResultDataWithCA(whole, {}, false).first);
}

}  // namespace
}  // namespace zorl
