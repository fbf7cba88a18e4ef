// The compute unit: rendition sizes, lazy building, update rectangles, partial
// re-rendering and the selective invalidation of setTransform.

#include <gtest/gtest.h>

#include <cstring>
#include <variant>

#include <imageprocessing/image_data_compute_unit.h>
#include <imageprocessing/tiled_mask_image.h>

#include "support/test_support.h"

namespace zorl {
namespace {

using RgbData = _ImageData<PixelRGB<float>>;
using RgbUnit = ImageDataComputeUnit<RgbData, RgbData>;

std::shared_ptr<RgbData> noiseRgb(_Size<int> size, uint32_t seed) {
    const auto v = test::noise(std::size_t(size.area()) * 3, seed);
    auto img = std::make_shared<RgbData>(size, ColorProfileType::sRGB());
    std::memcpy(img->data(), v.data(), img->byteCount());
    return img;
}

ImageTransformSettings framing(_Size<int> canvas, const CropDescription& crop, _Rect<float> region, _Size<int> working) {
    return {.canvasSize = canvas, .region = region, .workingSize = working, .crop = crop};
}

bool samePixels(const RgbData& a, const RgbData& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.byteCount()) == 0;
}

// A rendition of src under s built afresh: the working image, or the canvas at `size`.
std::shared_ptr<RgbData> fresh(const RgbData& src, const ImageTransformSettings& s, _Size<int> size = kEmptySize) {
    const TransformComputer tc(s, TransformComputer::DataSourceType::ImageData);
    const ResizeParameters rp = size == kEmptySize ? tc.getWorkingResizeParameters()
                                                   : ResizeParameters{size, {{0, 0}, tc.calculateCanvasSize()}, true};
    return tc.createTransformedRoi<RgbData, RgbData>(src, rp);
}

TEST(ImageDataComputeUnit, RenditionSizes) {
    const struct { _Size<int> canvas, preview, thumbnail; } cases[] = {
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

// Renditions are built when first asked for and cached; a new one counts as wholly
// changed, once (a thumbnail marks nothing); marks grow to their bounding box and
// collecting resets. A rendition that cannot be built stays empty and marks nothing.
TEST(ImageDataComputeUnit, LazyRenditionsAndUpdateRects) {
    const auto src = noiseRgb({48, 36}, 4);
    const auto s = framing({48, 36}, CropDescription({2, 2, 40, 30}, 10.0f, false, false), {4, 2, 24, 18}, {12, 9});
    RgbUnit unit(src);
    unit.setTransform(s);
    EXPECT_FALSE(unit.hasWorkingImage() || unit.hasThumbnail());
    const auto working = unit.workingImage();
    ASSERT_TRUE(working);
    EXPECT_TRUE(samePixels(*working, *fresh(*src, s)));
    EXPECT_EQ(unit.workingImage(), working);
    EXPECT_EQ(unit.getWorkingImageUpdateRect(), _Rect<int>(0, 0, 12, 9));
    EXPECT_EQ(unit.getWorkingImageUpdateRect(), kEmptyRect);
    unit.preview();
    EXPECT_EQ(unit.thumbnail()->size(), _Size<int>(10, 8));
    EXPECT_EQ(unit.getPreviewUpdateRect(), _Rect<int>(0, 0, 500, 375));
    EXPECT_EQ(unit.getPreviewUpdateRect(), kEmptyRect);
    unit.markWorkingImageUpdatedInRect({10, 10, 5, 5});
    unit.markWorkingImageUpdatedInRect({0, 20, 2, 2});
    EXPECT_EQ(unit.getWorkingImageUpdateRect(), _Rect<int>(0, 10, 15, 12));
    EXPECT_EQ(unit.getWorkingImageUpdateRect(), kEmptyRect);
    unit.markPreviewUpdatedInRect({3, 4, 1, 1});
    EXPECT_EQ(unit.getPreviewUpdateRect(), _Rect<int>(3, 4, 1, 1));
    RgbUnit empty(src);
    empty.setTransform(framing({48, 36}, CropDescription(), {0, 0, 10, 10}, {0, 0}));
    EXPECT_FALSE(empty.workingImage() || empty.hasWorkingImage());
    EXPECT_EQ(empty.getWorkingImageUpdateRect(), kEmptyRect);
}

// A painted block of the source is re-rendered in the mapped rectangle alone, once the
// unit is told in a way it accepts (not: a rectangle reaching outside the source, data
// of another size, no data). The working image update drops the thumbnail, the preview
// update keeps it. Tiles of the source, each grown by a pixel and clipped, rebuild both
// renditions exactly.
TEST(ImageDataComputeUnit, UpdatesReRenderTheMappedRectangle) {
    auto src = noiseRgb({40, 30}, 9);
    const auto s = framing({40, 30}, CropDescription({0, 0, 40, 30}, 8.0f, false, true), {2, 3, 30, 20}, {24, 16});
    RgbUnit unit(src);
    unit.setTransform(s);
    const RgbData before(*unit.workingImage()), previewBefore(*unit.preview());
    unit.thumbnail();
    unit.getWorkingImageUpdateRect();
    unit.getPreviewUpdateRect();
    const _Rect<int> painted{12, 9, 7, 5};
    for (int i = 0; i < 35; ++i) src->at(12 + i % 7, 9 + i / 7) = {1, 0, 1};
    const std::pair<std::shared_ptr<RgbData>, _Rect<int>> refused[] = {
        {src, {12, 9, 29, 5}}, {src, {-1, 9, 20, 5}}, {noiseRgb({41, 30}, 1), painted}, {nullptr, painted}};
    const auto tell = [](RgbUnit& u, const std::shared_ptr<RgbData>& data, _Rect<int> rect) {
        u.updateWorkingImage(data, rect);
        u.updatePreview(data, rect);
    };
    for (const auto& [data, rect] : refused) tell(unit, data, rect);
    EXPECT_TRUE(unit.hasThumbnail() && samePixels(*unit.workingImage(), before) &&
                samePixels(*unit.preview(), previewBefore));
    EXPECT_EQ(std::pair(unit.getWorkingImageUpdateRect(), unit.getPreviewUpdateRect()), std::pair(kEmptyRect, kEmptyRect));
    unit.updateWorkingImage(src, painted);
    EXPECT_FALSE(unit.hasThumbnail());
    unit.thumbnail();
    unit.updatePreview(src, painted);
    EXPECT_TRUE(unit.hasThumbnail());
    const _Rect<int> target = unit.workingRectForRect(painted);
    ASSERT_FALSE(target.isEmpty());
    EXPECT_EQ(std::pair(unit.getWorkingImageUpdateRect(), unit.getPreviewUpdateRect()),
              std::pair(target, unit.previewRectForRect(painted)));
    const auto now = fresh(*src, s);
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 24; ++x)
            EXPECT_EQ(unit.workingImage()->at(x, y), (target.contains(x, y) ? *now : before).at(x, y)) << x << "," << y;
    std::memcpy(src->data(), noiseRgb({40, 30}, 10)->data(), src->byteCount());
    for (const _Rect<int> tile : {_Rect<int>{0, 0, 21, 16}, {19, 0, 21, 16}, {0, 14, 21, 16}, {19, 14, 21, 16}})
        tell(unit, src, tile);
    EXPECT_TRUE(samePixels(*unit.workingImage(), *fresh(*src, s)));
    EXPECT_TRUE(samePixels(*unit.preview(), *fresh(*src, s, unit.getPreviewSize())));
    RgbUnit orphan(nullptr);
    testing::internal::CaptureStdout();
    tell(orphan, src, painted);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Should not be here.\nShould not be here.\n");
}

TEST(ImageDataComputeUnit, SetTransformDropsOnlyWhatChanged) {
    using S = ImageTransformSettings;
    const S base = framing({32, 24}, CropDescription({0, 0, 32, 24}, 5.0f, false, false), {0, 0, 16, 12}, {8, 6});
    test::MemoryBalance balance;
    const struct { const char* name; S (*change)(S); bool working, preview, thumbnail; } cases[] = {  // kept?
        {"equal", [](S s) { return s; }, true, true, true},
        {"region", [](S s) { s.region.x = 2; return s; }, false, true, true},
        {"working size", [](S s) { s.workingSize = {9, 6}; return s; }, false, true, true},
        {"canvas size", [](S s) { s.canvasSize = {33, 24}; return s; }, false, true, false},
        {"crop", [](S s) { s.crop.angle = 6.0f; return s; }, false, false, false},
        {"has transform", [](S s) { s.hasTransform = 1; return s; }, false, false, false},
        {"affine", [](S s) { s.transformParameters = AffineTransform(1, 0, 0, 1, 1, 0); return s; }, false, false, false},
        {"alternative", [](S s) { s.transformParameters = std::monostate{}; return s; }, false, false, false},
    };
    for (const auto& c : cases) {
        RgbUnit unit(noiseRgb({32, 24}, 3));
        unit.setTransform(base);
        unit.workingImage();
        const auto preview = unit.preview();
        unit.thumbnail();
        unit.getPreviewUpdateRect();
        unit.markPreviewUpdatedInRect({2, 2, 2, 2});
        const S next = c.change(base);
        unit.setTransform(next);
        EXPECT_EQ(std::pair(unit.hasWorkingImage(), unit.hasThumbnail()), std::pair(c.working, c.thumbnail)) << c.name;
        EXPECT_EQ(unit.getWorkingImageUpdateRect(), c.working ? _Rect<int>(0, 0, 8, 6) : kEmptyRect) << c.name;
        EXPECT_EQ(unit.getPreviewUpdateRect(), c.preview ? _Rect<int>(2, 2, 2, 2) : kEmptyRect) << c.name;
        const bool unbuildable = next.hasTransform == 1 && next.transformParameters.index() != 0;  // no preview then
        EXPECT_TRUE(unbuildable || (unit.preview() == preview) == c.preview) << c.name;
    }
    EXPECT_TRUE(balance.balanced());
}

// The other pixel types share the code: each builds and updates. A tiled mask, mirrored:
// a dab at source x 200..209 shows at working x 110..119 (x -> 319 - x). The mapped
// rectangle of a mirrored axis can fall one pixel short of the corner samples: the dab is
// passed grown by one pixel, as the editor does.
TEST(ImageDataComputeUnit, OtherSources) {
    const auto check = [](auto pixel) {
        using D = _ImageData<decltype(pixel)>;
        auto src = std::make_shared<D>(_Size<int>{20, 16}, pixel, ColorProfileType::sRGB());
        ImageDataComputeUnit<D, D> unit(src);
        unit.setTransform(framing({20, 16}, CropDescription({0, 0, 20, 16}, 90.0f, false, false), {0, 0, 20, 16}, {10, 8}));
        EXPECT_EQ(unit.workingImage()->size(), _Size<int>(10, 8));
        unit.getWorkingImageUpdateRect();
        unit.updateWorkingImage(src, {0, 0, 4, 4});
        EXPECT_FALSE(unit.getWorkingImageUpdateRect().isEmpty());
    };
    check(uint8_t{});
    check(float{});
    check(PixelRGBA<float>{});
    auto mask = std::make_shared<TiledMaskImage>(_Size<int>{320, 240}, 0.0f);
    ImageDataComputeUnit<MaskImage, TiledMaskImage> masks(mask);
    masks.setTransform(framing({320, 240}, CropDescription({0, 0, 320, 240}, 0.0f, true, false), {0, 0, 160, 120}, {160, 120}));
    masks.workingImage();
    masks.getWorkingImageUpdateRect();
    for (int i = 0; i < 100; ++i) mask->setValue(1.0f, 200 + i % 10, 30 + i / 10);
    masks.updateWorkingImage(mask, _Rect<int>{200, 30, 10, 10}.inset(-1, -1));
    EXPECT_TRUE(masks.getWorkingImageUpdateRect().contains(_Rect<int>{110, 30, 10, 10}));
    for (int y = 28; y < 42; ++y)
        for (int x = 108; x < 122; ++x)
            EXPECT_EQ(masks.workingImage()->at(x, y), (x >= 110 && x < 120 && y >= 30 && y < 40) ? 1.0f : 0.0f) << x << "," << y;
}

}  // namespace
}  // namespace zorl
