// The compute unit: rendition sizes, lazy building, update rectangles, rectangle
// mapping, partial re-rendering and the selective invalidation of setTransform.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <variant>

#include <imageprocessing/image_data_compute_unit.h>
#include <imageprocessing/tiled_mask_image.h>
#include <zorl/core/image.h>

#include "support/test_support.h"

namespace zorl {
namespace {

using RGB = PixelRGB<float>;
using RgbData = _ImageData<RGB>;
using RgbUnit = ImageDataComputeUnit<RgbData, RgbData>;

std::shared_ptr<RgbData> noiseRgb(_Size<int> size, uint32_t seed) {
    const auto v = test::noise(std::size_t(size.area()) * 3, seed);
    auto img = std::make_shared<RgbData>(size, ColorProfileType::sRGB());
    std::memcpy(img->data(), v.data(), img->byteCount());
    return img;
}

ImageTransformSettings framing(_Size<int> canvas, const CropDescription& crop, _Rect<float> region, _Size<int> working) {
    ImageTransformSettings s;
    s.canvasSize = canvas;
    s.crop = crop;
    s.region = region;
    s.workingSize = working;
    return s;
}

bool samePixels(const RgbData& a, const RgbData& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.byteCount()) == 0;
}

TEST(ImageDataComputeUnit, RenditionSizes) {
    struct Case {
        _Size<int> canvas;
        _Size<int> preview, thumbnail;
    };
    const Case cases[] = {
        {{4000, 3000}, {500, 375}, {120, 90}}, {{300, 200}, {500, 333}, {75, 50}},
        {{200, 100}, {500, 250}, {50, 25}},    {{3, 9}, {167, 500}, {0, 0}},
        {{0, 0}, {0, 0}, {0, 0}},              {{1001, 7}, {500, 3}, {120, 1}},
    };
    for (const Case& c : cases) {
        RgbUnit unit(noiseRgb({4, 4}, 1));
        unit.setTransform(framing(c.canvas, CropDescription(), {}, {}));
        EXPECT_EQ(unit.getPreviewSize(), c.preview) << c.canvas.width;
        EXPECT_EQ(unit.getThumbnailSize(), c.thumbnail) << c.canvas.width;
        EXPECT_EQ(unit.getPreviewRoi(), _Rect<float>(0, 0, float(c.canvas.width), float(c.canvas.height)));
    }
    // A crop makes the crop rectangle the canvas.
    RgbUnit unit(noiseRgb({4, 4}, 1));
    unit.setTransform(framing({4000, 3000}, CropDescription({100, 100, 800, 1000}, 3.0f, false, false), {}, {}));
    EXPECT_EQ(unit.getPreviewSize(), _Size<int>(400, 500));
    EXPECT_EQ(unit.getThumbnailRoi(), _Rect<float>(0, 0, 800, 1000));
}

TEST(ImageDataComputeUnit, LazyRenditionsAndUpdateRects) {
    const _Size<int> canvas{48, 36};
    const auto src = noiseRgb(canvas, 4);
    const ImageTransformSettings s = framing(canvas, CropDescription({2, 2, 40, 30}, 10.0f, false, false),
                                             {4.0f, 2.0f, 24.0f, 18.0f}, {12, 9});
    test::MemoryBalance balance;
    {
        RgbUnit unit(src);
        unit.setTransform(s);
        EXPECT_EQ(unit.image(), src);
        EXPECT_EQ(unit.imageTransformSettings(), s);
        EXPECT_FALSE(unit.hasWorkingImage());
        EXPECT_FALSE(unit.hasThumbnail());

        const auto working = unit.workingImage();
        ASSERT_TRUE(working);
        const TransformComputer tc(s, TransformComputer::DataSourceType::ImageData);
        EXPECT_TRUE(samePixels(*working, *tc.createTransformedRoi<RgbData, RgbData>(*src, tc.getWorkingResizeParameters())));
        EXPECT_EQ(unit.workingImage(), working);  // cached
        EXPECT_EQ(unit.getWorkingImageUpdateRect(), _Rect<int>(0, 0, 12, 9));
        EXPECT_EQ(unit.getWorkingImageUpdateRect(), kEmptyRect);

        const auto preview = unit.preview();
        ASSERT_TRUE(preview);
        EXPECT_EQ(preview->size(), _Size<int>(500, 375));
        EXPECT_EQ(unit.getPreviewUpdateRect(), _Rect<int>(0, 0, 500, 375));
        EXPECT_EQ(unit.getPreviewUpdateRect(), kEmptyRect);

        const auto thumb = unit.thumbnail();
        ASSERT_TRUE(thumb);
        EXPECT_EQ(thumb->size(), _Size<int>(10, 8));
        EXPECT_TRUE(unit.hasThumbnail());
        EXPECT_EQ(unit.getPreviewUpdateRect(), kEmptyRect);  // building a thumbnail marks nothing
        unit.clearThumbnail();
        EXPECT_FALSE(unit.hasThumbnail());
        unit.clearCache();
        EXPECT_FALSE(unit.hasWorkingImage());
        EXPECT_NE(unit.preview(), preview);  // rebuilt

        // Marking grows to the bounding box.
        unit.getPreviewUpdateRect();
        unit.markWorkingImageUpdatedInRect({10, 10, 5, 5});
        unit.markWorkingImageUpdatedInRect({0, 20, 2, 2});
        EXPECT_EQ(unit.getWorkingImageUpdateRect(), _Rect<int>(0, 10, 15, 12));
        unit.markPreviewUpdatedInRect({3, 4, 1, 1});
        EXPECT_EQ(unit.getPreviewUpdateRect(), _Rect<int>(3, 4, 1, 1));
    }
    EXPECT_TRUE(balance.balanced());

    // A rendition that cannot be built stays empty and marks nothing.
    RgbUnit unit(src);
    unit.setTransform(framing(canvas, CropDescription(), {0, 0, 10, 10}, {0, 0}));
    EXPECT_FALSE(unit.workingImage());
    EXPECT_FALSE(unit.hasWorkingImage());
    EXPECT_EQ(unit.getWorkingImageUpdateRect(), kEmptyRect);
}

TEST(ImageDataComputeUnit, ImageRectForRect) {
    const _Size<int> canvas{64, 48};
    RgbUnit unit(noiseRgb(canvas, 2));
    const CropDescription crop({4, 3, 50, 40}, 23.0f, true, false);
    const ImageTransformSettings s = framing(canvas, crop, {5.0f, 4.0f, 30.0f, 24.0f}, {15, 12});
    unit.setTransform(s);
    EXPECT_EQ(unit.imageRectForRect({1, 1, 5, 5}, {0, 0, 0, 10}, {10, 10}), kEmptyRect);
    EXPECT_EQ(unit.imageRectForRect({1, 1, 5, 5}, {0, 0, 10, 10}, {10, 0}), kEmptyRect);

    // Reference: the source rectangle's corners through canvas placement and the region
    // scale, in double precision, enclosed and clipped.
    const auto check = [&](const _Rect<int>& rect, const _Rect<float>& roi, _Size<int> size, _Rect<int> got) {
        const double cx = (canvas.width - 1) / 2.0, cy = (canvas.height - 1) / 2.0, th = 23.0 * M_PI / 180.0;
        double x0 = 1e9, y0 = 1e9, x1 = -1e9, y1 = -1e9;
        for (auto [px, py] : {std::pair<double, double>{rect.x, rect.y}, {rect.right(), rect.y},
                              {rect.right(), rect.bottom()}, {rect.x, rect.bottom()}}) {
            const double fx = -(px - cx), fy = py - cy;  // horizontal flip
            const double canvasX = std::cos(th) * fx - std::sin(th) * fy + cx - crop.rect.x;
            const double canvasY = std::sin(th) * fx + std::cos(th) * fy + cy - crop.rect.y;
            const double rx = (canvasX - std::round(roi.x)) * size.width / std::round(roi.width);
            const double ry = (canvasY - std::round(roi.y)) * size.height / std::round(roi.height);
            x0 = std::min(x0, rx), y0 = std::min(y0, ry), x1 = std::max(x1, rx), y1 = std::max(y1, ry);
        }
        const int l = std::max(0, int(std::floor(x0))), t = std::max(0, int(std::floor(y0)));
        const int r = std::min(size.width, int(std::ceil(x1))), b = std::min(size.height, int(std::ceil(y1)));
        const _Rect<int> want = (r > l && b > t) ? _Rect<int>(l, t, r - l, b - t) : kEmptyRect;
        EXPECT_EQ(got, want) << rect.x << "," << rect.y;
    };
    for (const _Rect<int> r : {_Rect<int>{20, 20, 6, 4}, {0, 0, 64, 48}, {40, 10, 3, 30}, {0, 46, 2, 2}}) {
        check(r, s.region, s.workingSize, unit.workingRectForRect(r));
        check(r, unit.getPreviewRoi(), unit.getPreviewSize(), unit.previewRectForRect(r));
    }
}

TEST(ImageDataComputeUnit, UpdatesReRenderTheMappedRectangle) {
    const _Size<int> canvas{40, 30};
    auto src = noiseRgb(canvas, 9);
    RgbUnit unit(src);
    const ImageTransformSettings s =
        framing(canvas, CropDescription({0, 0, 40, 30}, 8.0f, false, true), {2.0f, 3.0f, 30.0f, 20.0f}, {24, 16});
    unit.setTransform(s);
    const auto before = std::make_shared<RgbData>(*unit.workingImage());
    const auto previewBefore = std::make_shared<RgbData>(*unit.preview());
    unit.thumbnail();
    unit.getWorkingImageUpdateRect();
    unit.getPreviewUpdateRect();

    // Paint a block of the source, then tell the unit.
    const _Rect<int> painted{12, 9, 7, 5};
    for (int y = painted.y; y < painted.bottom(); ++y)
        for (int x = painted.x; x < painted.right(); ++x) src->at(x, y) = {1, 0, 1};
    unit.updateWorkingImage(src, painted);
    const _Rect<int> target = unit.workingRectForRect(painted);
    ASSERT_FALSE(target.isEmpty());
    EXPECT_EQ(unit.getWorkingImageUpdateRect(), target);
    EXPECT_FALSE(unit.hasThumbnail());
    const TransformComputer tc(s, TransformComputer::DataSourceType::ImageData);
    const auto fresh = tc.createTransformedRoi<RgbData, RgbData>(*src, tc.getWorkingResizeParameters());
    const auto working = unit.workingImage();
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 24; ++x)
            EXPECT_EQ(working->at(x, y), target.contains(x, y) ? fresh->at(x, y) : before->at(x, y)) << x << "," << y;

    unit.thumbnail();
    unit.updatePreview(src, painted);
    const _Rect<int> previewTarget = unit.previewRectForRect(painted);
    EXPECT_EQ(unit.getPreviewUpdateRect(), previewTarget);
    EXPECT_TRUE(unit.hasThumbnail());  // the preview update keeps it
    const auto freshPreview =
        tc.createTransformedRoi<RgbData, RgbData>(*src, {unit.getPreviewSize(), {0, 0, 40, 30}, true});
    const auto preview = unit.preview();
    for (int y = 0; y < preview->height(); y += 3)
        for (int x = 0; x < preview->width(); x += 3)
            ASSERT_EQ(preview->at(x, y), previewTarget.contains(x, y) ? freshPreview->at(x, y) : previewBefore->at(x, y));

    // Rejected updates change nothing: a rectangle reaching outside, another size.
    const auto snapshot = std::make_shared<RgbData>(*working);
    for (const auto& [data, rect] : {std::pair{src, _Rect<int>{35, 0, 6, 4}}, std::pair{src, _Rect<int>{-1, 0, 3, 3}},
                                     std::pair{noiseRgb({41, 30}, 1), _Rect<int>{0, 0, 4, 4}},
                                     std::pair{std::shared_ptr<RgbData>(), _Rect<int>{0, 0, 4, 4}}}) {
        unit.updateWorkingImage(data, rect);
        unit.updatePreview(data, rect);
    }
    EXPECT_TRUE(unit.hasThumbnail());
    EXPECT_EQ(unit.getWorkingImageUpdateRect(), kEmptyRect);
    EXPECT_EQ(unit.getPreviewUpdateRect(), kEmptyRect);
    EXPECT_TRUE(samePixels(*unit.workingImage(), *snapshot));

    // Without a source.
    RgbUnit orphan(nullptr);
    testing::internal::CaptureStdout();
    orphan.updateWorkingImage(src, painted);
    orphan.updatePreview(src, painted);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Should not be here.\nShould not be here.\n");
}

TEST(ImageDataComputeUnit, SetTransformDropsOnlyWhatChanged) {
    const _Size<int> canvas{32, 24};
    const ImageTransformSettings base =
        framing(canvas, CropDescription({0, 0, 32, 24}, 5.0f, false, false), {0, 0, 16, 12}, {8, 6});
    struct Case {
        const char* name;
        void (*change)(ImageTransformSettings&);
        bool working, preview, thumbnail;  // kept?
    };
    const Case cases[] = {
        {"equal", [](ImageTransformSettings&) {}, true, true, true},
        {"region", [](ImageTransformSettings& s) { s.region.x = 2; }, false, true, true},
        {"working size", [](ImageTransformSettings& s) { s.workingSize = {9, 6}; }, false, true, true},
        {"canvas size", [](ImageTransformSettings& s) { s.canvasSize = {33, 24}; }, false, true, false},
        {"crop", [](ImageTransformSettings& s) { s.crop.angle = 6.0f; }, false, false, false},
        {"has transform", [](ImageTransformSettings& s) { s.hasTransform = 1; }, false, false, false},
        {"affine", [](ImageTransformSettings& s) { s.transformParameters = AffineTransform(1, 0, 0, 1, 1, 0); },
         false, false, false},
        {"alternative", [](ImageTransformSettings& s) { s.transformParameters = std::monostate{}; }, false, false,
         false},
    };
    for (const Case& c : cases) {
        RgbUnit unit(noiseRgb(canvas, 3));
        unit.setTransform(base);
        const auto working = unit.workingImage();
        const auto preview = unit.preview();
        unit.thumbnail();
        unit.markWorkingImageUpdatedInRect({1, 1, 1, 1});
        unit.getPreviewUpdateRect();
        unit.markPreviewUpdatedInRect({2, 2, 2, 2});
        ImageTransformSettings next = base;
        c.change(next);
        unit.setTransform(next);
        EXPECT_EQ(unit.imageTransformSettings(), next) << c.name;
        EXPECT_EQ(unit.hasWorkingImage(), c.working) << c.name;
        EXPECT_EQ(unit.hasThumbnail(), c.thumbnail) << c.name;
        EXPECT_EQ(unit.getWorkingImageUpdateRect(), c.working ? _Rect<int>(0, 0, 8, 6) : kEmptyRect) << c.name;
        EXPECT_EQ(unit.getPreviewUpdateRect(), c.preview ? _Rect<int>(2, 2, 2, 2) : kEmptyRect) << c.name;
        if (next.hasTransform == 0 || next.transformParameters.index() == 0) {
            EXPECT_EQ(unit.preview() == preview, c.preview) << c.name;
        }
    }
}

// The other instantiations share the code; check that each builds and updates.
template <class P>
void checkInstantiation() {
    using Data = _ImageData<P>;
    const _Size<int> canvas{20, 16};
    auto src = std::make_shared<Data>(canvas, P{}, ColorProfileType::sRGB());
    ImageDataComputeUnit<Data, Data> unit(src);
    unit.setTransform(framing(canvas, CropDescription({0, 0, 20, 16}, 90.0f, false, false), {0, 0, 20, 16}, {10, 8}));
    ASSERT_TRUE(unit.workingImage());
    EXPECT_EQ(unit.workingImage()->size(), _Size<int>(10, 8));
    EXPECT_EQ(unit.preview()->size(), _Size<int>(500, 400));
    EXPECT_EQ(unit.thumbnail()->size(), _Size<int>(5, 4));
    unit.getWorkingImageUpdateRect();
    unit.updateWorkingImage(src, {0, 0, 4, 4});
    EXPECT_FALSE(unit.getWorkingImageUpdateRect().isEmpty());
    ImageDataComputeUnit<Data, Data> copy(unit);
    EXPECT_EQ(copy.workingImage(), unit.workingImage());
}

TEST(ImageDataComputeUnit, EveryInstantiation) {
    checkInstantiation<uint8_t>();
    checkInstantiation<float>();
    checkInstantiation<PixelRGBA<float>>();

    auto image = std::make_shared<Image>(noiseRgb({20, 16}, 8));
    ImageDataComputeUnit<RgbData, Image> unit(image);
    const ImageTransformSettings s = framing({20, 16}, CropDescription({2, 1, 16, 12}, 0.0f, false, false),
                                             {0, 0, 16, 12}, {16, 12});
    unit.setTransform(s);
    const auto working = unit.workingImage();
    ASSERT_TRUE(working);
    const TransformComputer tc(s, TransformComputer::DataSourceType::ImageData);
    const auto plain = image->imageData({20, 16}, {0, 0, 20, 16}, true);
    EXPECT_TRUE(samePixels(*working, *tc.createTransformedRoi<RgbData, RgbData>(*plain, tc.getWorkingResizeParameters())));
    unit.getWorkingImageUpdateRect();
    image->getModifiedImageData()->at(5, 4) = {3, 3, 3};
    unit.updateWorkingImage(image, {5, 4, 1, 1});
    EXPECT_EQ(unit.getWorkingImageUpdateRect(), _Rect<int>(3, 3, 1, 1));  // the crop's offset
    EXPECT_EQ(unit.workingImage()->at(3, 3), (RGB{3, 3, 3}));
}

TEST(ImageDataComputeUnit, TiledMaskRenditions) {
    auto mask = std::make_shared<TiledMaskImage>(_Size<int>{320, 240}, 0.0f);
    ImageDataComputeUnit<MaskImage, TiledMaskImage> unit(mask);
    unit.setTransform(framing({320, 240}, CropDescription({0, 0, 320, 240}, 0.0f, true, false), {0, 0, 160, 120},
                              {160, 120}));
    const auto working = unit.workingImage();
    ASSERT_TRUE(working);
    EXPECT_TRUE(working->isFilled(0.0f));
    EXPECT_EQ(unit.preview()->size(), _Size<int>(500, 375));
    EXPECT_EQ(unit.thumbnail()->size(), _Size<int>(80, 60));
    unit.getWorkingImageUpdateRect();

    // A dab at source x 200..209 shows mirrored at working x 110..119 (x -> 319 - x).
    for (int y = 30; y < 40; ++y)
        for (int x = 200; x < 210; ++x) mask->setValue(1.0f, x, y);
    // The mapped rectangle of a mirrored axis can fall one pixel short of the corner
    // samples: pass the dab grown by one pixel, as the editor does.
    const _Rect<int> dab{200, 30, 10, 10};
    unit.updateWorkingImage(mask, dab.inset(-1, -1));
    const _Rect<int> target = unit.getWorkingImageUpdateRect();
    EXPECT_EQ(target, unit.workingRectForRect(dab.inset(-1, -1)));
    EXPECT_TRUE(target.contains(_Rect<int>{110, 30, 10, 10}));
    EXPECT_FALSE(unit.hasThumbnail());
    for (int y = 28; y < 42; ++y)
        for (int x = 108; x < 122; ++x)
            EXPECT_EQ(unit.workingImage()->at(x, y), (x >= 110 && x < 120 && y >= 30 && y < 40) ? 1.0f : 0.0f) << x << "," << y;
}

}  // namespace
}  // namespace zorl
