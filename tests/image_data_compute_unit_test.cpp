// The compute unit: rendition sizes, lazy building, update rectangles, partial
// re-rendering and the selective invalidation of setTransform.

#include <gtest/gtest.h>

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

// A rendition of src under s built afresh: the working image, or the canvas at `size`.
std::shared_ptr<RgbData> fresh(const RgbData& src, const ImageTransformSettings& s, _Size<int> size = kEmptySize) {
    const TransformComputer tc(s, TransformComputer::DataSourceType::ImageData);
    const _Size<int> canvas = tc.calculateCanvasSize();
    const ResizeParameters rp = size == kEmptySize ? tc.getWorkingResizeParameters()
                                                   : ResizeParameters{size, {0, 0, canvas.width, canvas.height}, true};
    return tc.createTransformedRoi<RgbData, RgbData>(src, rp);
}

TEST(ImageDataComputeUnit, RenditionSizes) {
    const struct {
        _Size<int> canvas, preview, thumbnail;
    } cases[] = {
        {{4000, 3000}, {500, 375}, {120, 90}}, {{300, 200}, {500, 333}, {75, 50}}, {{200, 100}, {500, 250}, {50, 25}},
        {{3, 9}, {167, 500}, {0, 0}},          {{0, 0}, {0, 0}, {0, 0}},          {{1001, 7}, {500, 3}, {120, 1}},
    };
    RgbUnit unit(noiseRgb({4, 4}, 1));
    for (const auto& c : cases) {
        unit.setTransform(framing(c.canvas, CropDescription(), {}, {}));
        EXPECT_EQ(unit.getPreviewSize(), c.preview) << c.canvas.width;
        EXPECT_EQ(unit.getThumbnailSize(), c.thumbnail) << c.canvas.width;
        EXPECT_EQ(unit.getPreviewRoi(), _Rect<float>(0, 0, float(c.canvas.width), float(c.canvas.height)));
    }
    // A crop makes the crop rectangle the canvas.
    unit.setTransform(framing({4000, 3000}, CropDescription({100, 100, 800, 1000}, 3.0f, false, false), {}, {}));
    EXPECT_EQ(unit.getPreviewSize(), _Size<int>(400, 500));
    EXPECT_EQ(unit.getThumbnailRoi(), _Rect<float>(0, 0, 800, 1000));
}

TEST(ImageDataComputeUnit, LazyRenditionsAndUpdateRects) {
    const auto src = noiseRgb({48, 36}, 4);
    const ImageTransformSettings s =
        framing({48, 36}, CropDescription({2, 2, 40, 30}, 10.0f, false, false), {4, 2, 24, 18}, {12, 9});
    test::MemoryBalance balance;
    {
        RgbUnit unit(src);
        unit.setTransform(s);
        EXPECT_FALSE(unit.hasWorkingImage() || unit.hasThumbnail());
        const auto working = unit.workingImage();
        ASSERT_TRUE(working);
        EXPECT_TRUE(samePixels(*working, *fresh(*src, s)));
        EXPECT_EQ(unit.workingImage(), working);  // cached
        // A new rendition counts as wholly changed, once; a thumbnail marks nothing.
        EXPECT_EQ(unit.getWorkingImageUpdateRect(), _Rect<int>(0, 0, 12, 9));
        EXPECT_EQ(unit.getWorkingImageUpdateRect(), kEmptyRect);
        const auto preview = unit.preview();
        EXPECT_EQ(unit.thumbnail()->size(), _Size<int>(10, 8));
        EXPECT_EQ(unit.getPreviewUpdateRect(), _Rect<int>(0, 0, 500, 375));
        EXPECT_EQ(unit.getPreviewUpdateRect(), kEmptyRect);
        unit.clearCache();
        EXPECT_FALSE(unit.hasWorkingImage() || unit.hasThumbnail());
        EXPECT_NE(unit.preview(), preview);  // rebuilt
        unit.getPreviewUpdateRect();

        // Marking grows to the bounding box; collecting resets.
        unit.markWorkingImageUpdatedInRect({10, 10, 5, 5});
        unit.markWorkingImageUpdatedInRect({0, 20, 2, 2});
        EXPECT_EQ(unit.getWorkingImageUpdateRect(), _Rect<int>(0, 10, 15, 12));
        EXPECT_EQ(unit.getWorkingImageUpdateRect(), kEmptyRect);
        unit.markPreviewUpdatedInRect({3, 4, 1, 1});
        EXPECT_EQ(unit.getPreviewUpdateRect(), _Rect<int>(3, 4, 1, 1));
        EXPECT_EQ(unit.imageRectForRect({1, 1, 5, 5}, {0, 0, 0, 10}, {10, 10}), kEmptyRect);
        EXPECT_EQ(unit.imageRectForRect({1, 1, 5, 5}, {0, 0, 10, 10}, {10, 0}), kEmptyRect);
    }
    EXPECT_TRUE(balance.balanced());

    // A rendition that cannot be built stays empty and marks nothing.
    RgbUnit unit(src);
    unit.setTransform(framing({48, 36}, CropDescription(), {0, 0, 10, 10}, {0, 0}));
    EXPECT_FALSE(unit.workingImage() || unit.hasWorkingImage());
    EXPECT_EQ(unit.getWorkingImageUpdateRect(), kEmptyRect);
}

TEST(ImageDataComputeUnit, UpdatesReRenderTheMappedRectangle) {
    auto src = noiseRgb({40, 30}, 9);
    const ImageTransformSettings s =
        framing({40, 30}, CropDescription({0, 0, 40, 30}, 8.0f, false, true), {2, 3, 30, 20}, {24, 16});
    RgbUnit unit(src);
    unit.setTransform(s);
    const RgbData before(*unit.workingImage()), previewBefore(*unit.preview());
    unit.thumbnail();
    unit.getWorkingImageUpdateRect();
    unit.getPreviewUpdateRect();

    // Paint a block of the source, then tell the unit: first in ways it refuses (a
    // rectangle reaching outside the source, data of another size, no data).
    const _Rect<int> painted{12, 9, 7, 5};
    for (int y = painted.y; y < painted.bottom(); ++y)
        for (int x = painted.x; x < painted.right(); ++x) src->at(x, y) = {1, 0, 1};
    for (const auto& [data, rect] : {std::pair{src, _Rect<int>{12, 9, 29, 5}}, std::pair{src, _Rect<int>{-1, 9, 20, 5}},
                                     std::pair{noiseRgb({41, 30}, 1), painted},
                                     std::pair{std::shared_ptr<RgbData>(), painted}}) {
        unit.updateWorkingImage(data, rect);
        unit.updatePreview(data, rect);
    }
    EXPECT_TRUE(unit.hasThumbnail());
    EXPECT_EQ(unit.getWorkingImageUpdateRect(), kEmptyRect);
    EXPECT_EQ(unit.getPreviewUpdateRect(), kEmptyRect);
    EXPECT_TRUE(samePixels(*unit.workingImage(), before));
    EXPECT_TRUE(samePixels(*unit.preview(), previewBefore));

    // Accepted: the mapped rectangle alone is re-rendered and marked. The working image
    // update drops the thumbnail, the preview update keeps it.
    unit.updateWorkingImage(src, painted);
    EXPECT_FALSE(unit.hasThumbnail());
    unit.thumbnail();
    unit.updatePreview(src, painted);
    EXPECT_TRUE(unit.hasThumbnail());
    const _Rect<int> target = unit.workingRectForRect(painted);
    ASSERT_FALSE(target.isEmpty());
    EXPECT_EQ(unit.getWorkingImageUpdateRect(), target);
    EXPECT_EQ(unit.getPreviewUpdateRect(), unit.previewRectForRect(painted));
    const auto now = fresh(*src, s);
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 24; ++x)
            EXPECT_EQ(unit.workingImage()->at(x, y), (target.contains(x, y) ? *now : before).at(x, y)) << x << "," << y;

    // Repaint everything: tiles of the source, each grown by a pixel and clipped, rebuild
    // both renditions exactly.
    std::memcpy(src->data(), noiseRgb({40, 30}, 10)->data(), src->byteCount());
    for (const _Rect<int> tile : {_Rect<int>{0, 0, 21, 16}, {19, 0, 21, 16}, {0, 14, 21, 16}, {19, 14, 21, 16}}) {
        unit.updateWorkingImage(src, tile);
        unit.updatePreview(src, tile);
    }
    EXPECT_TRUE(samePixels(*unit.workingImage(), *fresh(*src, s)));
    EXPECT_TRUE(samePixels(*unit.preview(), *fresh(*src, s, unit.getPreviewSize())));

    RgbUnit orphan(nullptr);
    testing::internal::CaptureStdout();
    orphan.updateWorkingImage(src, painted);
    orphan.updatePreview(src, painted);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Should not be here.\nShould not be here.\n");
}

TEST(ImageDataComputeUnit, SetTransformDropsOnlyWhatChanged) {
    const ImageTransformSettings base =
        framing({32, 24}, CropDescription({0, 0, 32, 24}, 5.0f, false, false), {0, 0, 16, 12}, {8, 6});
    const struct {
        const char* name;
        void (*change)(ImageTransformSettings&);
        bool working, preview, thumbnail;  // kept?
    } cases[] = {
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
    for (const auto& c : cases) {
        RgbUnit unit(noiseRgb({32, 24}, 3));
        unit.setTransform(base);
        unit.workingImage();
        const auto preview = unit.preview();
        unit.thumbnail();
        unit.getPreviewUpdateRect();
        unit.markPreviewUpdatedInRect({2, 2, 2, 2});
        ImageTransformSettings next = base;
        c.change(next);
        unit.setTransform(next);
        EXPECT_EQ(unit.hasWorkingImage(), c.working) << c.name;
        EXPECT_EQ(unit.hasThumbnail(), c.thumbnail) << c.name;
        EXPECT_EQ(unit.getWorkingImageUpdateRect(), c.working ? _Rect<int>(0, 0, 8, 6) : kEmptyRect) << c.name;
        EXPECT_EQ(unit.getPreviewUpdateRect(), c.preview ? _Rect<int>(2, 2, 2, 2) : kEmptyRect) << c.name;
        if (next.hasTransform == 0 || next.transformParameters.index() == 0) {  // else the preview cannot be built
            EXPECT_EQ(unit.preview() == preview, c.preview) << c.name;
        }
    }
}

// The other pixel types share the code: each builds and updates.
template <class P>
void checkInstantiation() {
    auto src = std::make_shared<_ImageData<P>>(_Size<int>{20, 16}, P{}, ColorProfileType::sRGB());
    ImageDataComputeUnit<_ImageData<P>, _ImageData<P>> unit(src);
    unit.setTransform(framing({20, 16}, CropDescription({0, 0, 20, 16}, 90.0f, false, false), {0, 0, 20, 16}, {10, 8}));
    EXPECT_EQ(unit.workingImage()->size(), _Size<int>(10, 8));
    unit.getWorkingImageUpdateRect();
    unit.updateWorkingImage(src, {0, 0, 4, 4});
    EXPECT_FALSE(unit.getWorkingImageUpdateRect().isEmpty());
}

TEST(ImageDataComputeUnit, OtherSources) {
    checkInstantiation<uint8_t>();
    checkInstantiation<float>();
    checkInstantiation<PixelRGBA<float>>();

    // A document Image under a crop that only moves it: a source pixel refreshes the
    // working pixel at the crop's offset.
    auto image = std::make_shared<Image>(noiseRgb({20, 16}, 8));
    ImageDataComputeUnit<RgbData, Image> unit(image);
    unit.setTransform(framing({20, 16}, CropDescription({2, 1, 16, 12}, 0.0f, false, false), {0, 0, 16, 12}, {16, 12}));
    unit.workingImage();
    unit.getWorkingImageUpdateRect();
    image->getModifiedImageData()->at(5, 4) = {3, 3, 3};
    unit.updateWorkingImage(image, {5, 4, 1, 1});
    EXPECT_EQ(unit.getWorkingImageUpdateRect(), _Rect<int>(3, 3, 1, 1));
    EXPECT_EQ(unit.workingImage()->at(3, 3), (RGB{3, 3, 3}));

    // A tiled mask, mirrored: a dab at source x 200..209 shows at working x 110..119
    // (x -> 319 - x). The mapped rectangle of a mirrored axis can fall one pixel short of
    // the corner samples: the dab is passed grown by one pixel, as the editor does.
    auto mask = std::make_shared<TiledMaskImage>(_Size<int>{320, 240}, 0.0f);
    ImageDataComputeUnit<MaskImage, TiledMaskImage> masks(mask);
    masks.setTransform(framing({320, 240}, CropDescription({0, 0, 320, 240}, 0.0f, true, false), {0, 0, 160, 120},
                               {160, 120}));
    masks.workingImage();
    masks.thumbnail();
    masks.getWorkingImageUpdateRect();
    for (int y = 30; y < 40; ++y)
        for (int x = 200; x < 210; ++x) mask->setValue(1.0f, x, y);
    masks.updateWorkingImage(mask, _Rect<int>{200, 30, 10, 10}.inset(-1, -1));
    EXPECT_TRUE(masks.getWorkingImageUpdateRect().contains(_Rect<int>{110, 30, 10, 10}));
    EXPECT_FALSE(masks.hasThumbnail());
    for (int y = 28; y < 42; ++y)
        for (int x = 108; x < 122; ++x)
            EXPECT_EQ(masks.workingImage()->at(x, y), (x >= 110 && x < 120 && y >= 30 && y < 40) ? 1.0f : 0.0f)
                << x << "," << y;
}

}  // namespace
}  // namespace zorl
