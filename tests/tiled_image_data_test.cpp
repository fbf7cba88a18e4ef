// Tiled RGB image stores: reads, writes, fills and modified flags against a dense model,
// serialisation round trips and hostile streams, blends against the dense blend, and
// renditions against the dense renditions.

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <tuple>

#include <memory>
#include <random>
#include <vector>

#include <imageprocessing/blending.h>
#include <imageprocessing/compression.h>
#include <imageprocessing/image_data_compute_unit.h>
#include <imageprocessing/transform_computer.h>
#include <imageprocessing/tiled_image_data_stores.h>

#include <zorl/halton/halton.h>

#include "compute/tiled_image_data_access.h"
#include "storage/tiled_image_data_fuzz.h"
#include "support/test_support.h"

namespace zorl {
namespace {

using Pixel = PixelRGB<float>;
using Image = _ImageData<Pixel>;

constexpr Pixel kFill{0.25f, 0.5f, 0.75f};

// The dense model of a store: every operation written as a plain loop over all pixels.
struct DenseModel {
    int w, h;
    std::vector<Pixel> px;
    DenseModel(int width, int height, Pixel fill) : w(width), h(height), px(std::size_t(width) * height, fill) {}
    Pixel& at(int x, int y) { return px[std::size_t(y) * w + x]; }
    void write(const Image& src, _Rect<int> srcRect, _Point<int> at_) {
        for (int sy = srcRect.y; sy < srcRect.bottom(); ++sy)
            for (int sx = srcRect.x; sx < srcRect.right(); ++sx) {
                const int x = at_.x + sx - srcRect.x, y = at_.y + sy - srcRect.y;
                if (sx >= 0 && sy >= 0 && sx < src.width() && sy < src.height() && x >= 0 && y >= 0 && x < w && y < h)
                    at(x, y) = src.at(sx, sy);
            }
    }
    void fill(_Rect<int> r, Pixel v) {
        for (int y = std::max(0, r.y); y < std::min(h, r.bottom()); ++y)
            for (int x = std::max(0, r.x); x < std::min(w, r.right()); ++x) at(x, y) = v;
    }
};

std::shared_ptr<Image> noiseImage(_Size<int> size, uint32_t seed) {
    auto img = std::make_shared<Image>(size, ColorProfileType::sRGB());
    const std::vector<float> v = test::noise(img->pixelCount() * 3, seed);
    std::memcpy(img->data(), v.data(), v.size() * sizeof(float));
    return img;
}

template <class Store>
::testing::AssertionResult equalsModel(const Store& s, DenseModel& m) {
    const auto all = s.readRect(kNoRegion);
    if (!all || all->width() != m.w || all->height() != m.h) return ::testing::AssertionFailure() << "bad read";
    for (int y = 0; y < m.h; ++y)
        for (int x = 0; x < m.w; ++x) {
            if (!(all->at(x, y) == m.at(x, y)))
                return ::testing::AssertionFailure() << "readRect differs at (" << x << ", " << y << ")";
            if (!(s.getPixel(x, y) == m.at(x, y)))
                return ::testing::AssertionFailure() << "getPixel differs at (" << x << ", " << y << ")";
        }
    return ::testing::AssertionSuccess();
}

template <class Store>
class TiledStoreTest : public ::testing::Test {};
using Stores = ::testing::Types<KelTiledImageData, BarcTiledImageData>;
TYPED_TEST_SUITE(TiledStoreTest, Stores);

TYPED_TEST(TiledStoreTest, AbsentTilesReadAsTheFillColour) {
    test::MemoryBalance balance;
    {
        const TypeParam s({1000, 700}, kFill, ColorProfileType::proPhotoRGB());
        EXPECT_EQ(s.presentTileCount(), 0);
        EXPECT_EQ(s.tileCount(), s.tilesX() * s.tilesY());
        EXPECT_EQ(s.tilesX(), (1000 + TypeParam::kTileSide - 1) / TypeParam::kTileSide);
        for (auto [x, y] : std::vector<std::pair<int, int>>{{0, 0}, {999, 699}, {500, 300}, {-1, 0}, {1000, 0}, {0, 700}})
            EXPECT_EQ(s.getPixel(x, y), kFill);
        const auto r = s.readRect({300, 200, 400, 300});
        ASSERT_TRUE(r);
        EXPECT_EQ(r->size(), (_Size<int>{400, 300}));
        EXPECT_EQ(*r->colorProfile(), *ColorProfileType::proPhotoRGB());
        for (std::size_t i = 0; i < r->pixelCount(); ++i) ASSERT_EQ(r->data()[i], kFill);
        EXPECT_EQ(s.presentTileCount(), 0);                          // reading materialises nothing
        EXPECT_LT(s.heldBytes(), 64u * 1024);                        // tables only
        EXPECT_EQ(s.readRect({1000, 0, 5, 5}), nullptr);            // wholly outside
        EXPECT_EQ(s.readRect({990, 690, 50, 50})->size(), (_Size<int>{10, 10}));  // clipped
    }
    EXPECT_TRUE(balance.balanced());
}

TYPED_TEST(TiledStoreTest, TileRectsAreClippedAtTheEdges) {
    const int side = TypeParam::kTileSide;
    const TypeParam s({side + 1, 2 * side}, kFill, nullptr);
    EXPECT_EQ(*s.colorProfile(), *ColorProfileType::None());
    EXPECT_EQ(s.tilesX(), 2);
    EXPECT_EQ(s.tilesY(), 2);
    EXPECT_EQ(s.getTileRect(0), (_Rect<int>{0, 0, side, side}));
    EXPECT_EQ(s.getTileRect(1), (_Rect<int>{side, 0, 1, side}));
    EXPECT_EQ(s.getTileRect(3), (_Rect<int>{side, side, 1, side}));
    EXPECT_EQ(s.getTileRect(4), kEmptyRect);
    EXPECT_EQ(s.getTileRect(-1), kEmptyRect);
}

// Random writes, fills and single pixels across tile (and, for the current scheme,
// supertile) borders, checked against the dense model after every step.
TYPED_TEST(TiledStoreTest, WritesAcrossTileBordersMatchTheDenseModel) {
    test::MemoryBalance balance;
    {
        // 2100 columns: two supertiles of the current scheme side by side.
        const _Size<int> size{2100, 300};
        TypeParam s(size, kFill, ColorProfileType::sRGB());
        DenseModel m(size.width, size.height, kFill);
        std::mt19937 rng(7);
        auto coord = [&](int hi) { return std::uniform_int_distribution<int>(-40, hi + 10)(rng); };
        for (int step = 0; step < 40; ++step) {
            const int kind = step % 4;
            const _Rect<int> r{coord(size.width), coord(size.height), 1 + int(rng() % 300), 1 + int(rng() % 200)};
            if (kind == 0 || kind == 1) {
                const auto src = noiseImage({1 + int(rng() % 200), 1 + int(rng() % 150)}, step);
                // A source rectangle that may stick out of the source on any side.
                const _Rect<int> srcRect = kind == 0 ? kNoRegion
                                                     : _Rect<int>{int(rng() % 40) - 20, int(rng() % 40) - 20, 150, 120};
                s.writeRect(*src, srcRect, {r.x, r.y});
                m.write(*src, srcRect == kNoRegion ? src->rect() : srcRect, {r.x, r.y});
            } else if (kind == 2) {
                const Pixel v{float(step) / 40, 0.1f, 0.9f};
                s.fillRoi(r, step % 8 == 2 ? kFill : v);
                m.fill(r, step % 8 == 2 ? kFill : v);
            } else {
                const Pixel v{0.f, float(step), 1.f};
                s.setPixel(v, r.x, r.y);
                if (r.x >= 0 && r.y >= 0 && r.x < size.width && r.y < size.height) m.at(r.x, r.y) = v;
            }
        }
        EXPECT_TRUE(equalsModel(s, m));
        // The same writes on one thread give the same pixels.
        const auto many = s.readRect({100, 50, 1900, 200});
        test::onOneThread([&] {
            const auto one = s.readRect({100, 50, 1900, 200});
            EXPECT_EQ(std::memcmp(one->data(), many->data(), one->byteCount()), 0);
        });
    }
    EXPECT_TRUE(balance.balanced());
}

TYPED_TEST(TiledStoreTest, OnlyTouchedTilesAreHeld) {
    const int side = TypeParam::kTileSide;
    TypeParam s({20 * side, 10 * side}, kFill, ColorProfileType::sRGB());
    const auto dab = noiseImage({4, 4}, 1);
    s.writeRect(*dab, kNoRegion, {side - 2, side - 2});  // a corner shared by four tiles
    EXPECT_EQ(s.presentTileCount(), 4);
    for (int i : {0, 1, s.tilesX(), s.tilesX() + 1}) EXPECT_TRUE(s.hasTile(i)) << i;
    EXPECT_FALSE(s.hasTile(2));
    EXPECT_NE(s.tilePixels(1, 1), nullptr);
    EXPECT_EQ(s.tilePixels(2, 2), nullptr);
    EXPECT_EQ(s.tilePixels(-1, 0), nullptr);
    EXPECT_EQ(s.tilePixels(20, 0), nullptr);
    EXPECT_EQ(s.tilePixels(1, 1)[0], dab->at(2, 2));
    // Filling a wholly covered tile with the fill colour releases it.
    s.fillRoi({0, 0, side, side}, kFill);
    EXPECT_EQ(s.presentTileCount(), 3);
    EXPECT_EQ(s.getPixel(side - 1, side - 1), kFill);
    EXPECT_EQ(s.getPixel(side, side), dab->at(2, 2));
    // A partial fill with the fill colour keeps the tile.
    s.fillRoi({side, side, 1, 1}, kFill);
    EXPECT_EQ(s.presentTileCount(), 3);
    // A fill of the whole image drops every tile and changes the fill colour.
    const Pixel red{1.f, 0.f, 0.f};
    s.fillRoi(s.rect(), red);
    EXPECT_EQ(s.presentTileCount(), 0);
    EXPECT_EQ(s.fillColor(), red);
    EXPECT_EQ(s.getPixel(side, side), red);
    s.setPixel(kFill, 5, 5);
    s.fillRoi(kNoRegion, kFill);
    EXPECT_EQ(s.presentTileCount(), 0);
    EXPECT_EQ(s.fillColor(), kFill);
}

TYPED_TEST(TiledStoreTest, CopiesAreDeep) {
    TypeParam a({300, 300}, kFill, ColorProfileType::sRGB());
    a.setPixel({1, 1, 1}, 10, 10);
    TypeParam b(a);
    b.setPixel({0, 0, 0}, 10, 10);
    b.setPixel({0, 0, 0}, 299, 299);
    EXPECT_EQ(a.getPixel(10, 10), (Pixel{1, 1, 1}));
    EXPECT_EQ(a.getPixel(299, 299), kFill);
    EXPECT_EQ(b.getPixel(10, 10), (Pixel{0, 0, 0}));
    a = b;
    EXPECT_EQ(a.getPixel(299, 299), (Pixel{0, 0, 0}));
    EXPECT_EQ(a.presentTileCount(), b.presentTileCount());
}

TYPED_TEST(TiledStoreTest, SizeOutOfRangeIsLoggedAndGivesAnEmptyStore) {
    const std::string name = std::is_same_v<TypeParam, KelTiledImageData> ? "KelTiledImageData" : "BarcTiledImageData";
    for (_Size<int> bad : {_Size<int>{-1, 10}, _Size<int>{10, kMaxTiledImageSide + 1}}) {
        test::LogCapture log;
        TypeParam s(bad, kFill, ColorProfileType::sRGB());
        ASSERT_EQ(log.count(), 1u);
        EXPECT_EQ(log.lines()[0], "__cdecl zorl::" + name + "::" + name +
                                      "(struct zorl::_Size<int>,const struct zorl::PixelRGB<float> &,class "
                                      "std::shared_ptr<class zorl::ColorProfile>): Size out of range");
        EXPECT_EQ(s.size(), (_Size<int>{0, 0}));
        EXPECT_EQ(s.tileCount(), 0);
        EXPECT_EQ(s.readRect(kNoRegion), nullptr);
        s.setPixel(kFill, 0, 0);
        s.fillRoi({0, 0, 5, 5}, kFill);
        EXPECT_EQ(s.presentTileCount(), 0);
    }
    test::LogCapture log;
    TypeParam largest({kMaxTiledImageSide, kMaxTiledImageSide}, kFill, nullptr);
    EXPECT_EQ(log.count(), 0u);
    EXPECT_EQ(largest.size(), (_Size<int>{kMaxTiledImageSide, kMaxTiledImageSide}));
}

// ---- modified flags (current scheme) ----

TEST(KelModifiedFlags, EveryKindOfWriteSetsTheFlagsOfTheTilesItTouches) {
    constexpr int side = KelTiledImageData::kTileSide;
    KelTiledImageData s({4 * side, 3 * side}, kFill, ColorProfileType::sRGB());
    const int nx = s.tilesX();
    EXPECT_TRUE(s.modifiedTiles().empty());
    const auto patch = noiseImage({3, 3}, 2);
    struct Case {
        const char* what;
        std::function<void()> write;
        std::vector<int> tiles;
    };
    const std::vector<Case> cases = {
        {"setPixel", [&] { s.setPixel(kFill, side + 1, 1); }, {1}},
        {"writeRect", [&] { s.writeRect(*patch, kNoRegion, {side - 1, 2 * side - 1}); }, {nx, nx + 1, 2 * nx, 2 * nx + 1}},
        {"fillRoi", [&] { s.fillRoi({3 * side, 0, 2, 2 * side + 1}, {1, 1, 1}); }, {3, nx + 3, 2 * nx + 3}},
        // Releasing a tile (wholly covered with the fill colour) is a change too.
        {"fillRoi release", [&] { s.fillRoi({side, 0, side, side}, kFill); }, {1}},
        {"writeRect clipped", [&] { s.writeRect(*patch, kNoRegion, {-2, -2}); }, {0}},
        {"read", [&] { (void)s.readRect(kNoRegion); (void)s.getPixel(5, 5); }, {}},
        {"outside", [&] { s.setPixel(kFill, -1, 0); s.writeRect(*patch, kNoRegion, {9999, 0}); }, {}},
    };
    for (const Case& c : cases) {
        s.clearModified();
        c.write();
        EXPECT_EQ(s.modifiedTiles(), c.tiles) << c.what;
        for (int i : c.tiles) EXPECT_TRUE(s.isTileModified(i)) << c.what;
    }
    s.clearModified();
    s.setFillWith({0, 0, 0});
    EXPECT_EQ(s.modifiedTiles().size(), std::size_t(s.tileCount()));
    s.clearModified(5);
    EXPECT_FALSE(s.isTileModified(5));
    EXPECT_TRUE(s.isTileModified(4));
    EXPECT_FALSE(s.isTileModified(-1));
    EXPECT_FALSE(s.isTileModified(s.tileCount()));
    const KelTiledImageData copy(s);
    EXPECT_EQ(copy.modifiedTiles(), s.modifiedTiles());
    s.clearModified();
    EXPECT_TRUE(s.modifiedTiles().empty());
}

TEST(KelSupertiles, ExistOnlyWhileOneOfTheirTilesDoes) {
    constexpr int block = KelTiledImageData::kTileSide * KelTiledImageData::kSupertileTiles;  // 2048
    KelTiledImageData s({2 * block + 10, block + 10}, kFill, ColorProfileType::sRGB());
    EXPECT_EQ(s.presentSupertileCount(), 0);
    s.setPixel({1, 1, 1}, block - 1, block - 1);
    EXPECT_EQ(s.presentSupertileCount(), 1);
    const auto patch = noiseImage({2, 2}, 3);
    s.writeRect(*patch, kNoRegion, {block - 1, block - 1});  // corner of four supertiles
    EXPECT_EQ(s.presentSupertileCount(), 4);
    EXPECT_EQ(s.presentTileCount(), 4);
    EXPECT_EQ(s.getPixel(block, block), patch->at(1, 1));
    s.fillRoi({block, 0, block, block}, kFill);  // releases the tile of supertile (1, 0)
    EXPECT_EQ(s.presentSupertileCount(), 3);
    s.setFillWith(kFill);
    EXPECT_EQ(s.presentSupertileCount(), 0);
}

// ---- blends ----

std::shared_ptr<_ImageData<float>> noiseMask(_Size<int> size, uint32_t seed) {
    auto m = std::make_shared<_ImageData<float>>(size, nullptr);
    const std::vector<float> v = test::noise(m->pixelCount(), seed);
    std::memcpy(m->data(), v.data(), v.size() * sizeof(float));
    return m;
}

// A store with a few patches: some tiles present, most absent.
template <class Store>
Store patchedStore(_Size<int> size, Pixel fill, uint32_t seed) {
    Store s(size, fill, ColorProfileType::sRGB());
    std::mt19937 rng(seed);
    for (int k = 0; k < 3; ++k) {
        const auto patch = noiseImage({40 + int(rng() % 60), 30 + int(rng() % 40)}, seed * 10 + k);
        s.writeRect(*patch, kNoRegion, {int(rng() % size.width) - 20, int(rng() % size.height) - 20});
    }
    return s;
}

TYPED_TEST(TiledStoreTest, BlendWithTiledImageDataEqualsTheDenseBlend) {
    const _Size<int> size{3 * TypeParam::kTileSide - 30, 2 * TypeParam::kTileSide - 7};
    const auto mask = noiseMask(size, 5);
    struct Case {
        bool withMask;
        Pixel layerFill;
        float opacity;
    };
    const Case cases[] = {{false, kFill, 0.6f},          {false, {0.9f, 0.1f, 0.0f}, 0.35f},
                          {true, kFill, 0.8f},           {true, {0.9f, 0.1f, 0.0f}, 1.0f},
                          {false, {0.f, 0.f, 0.f}, 0.0f}, {true, {1.f, 1.f, 1.f}, 0.5f}};
    test::MemoryBalance balance;
    for (const Case& c : cases) {
        TypeParam base = patchedStore<TypeParam>(size, kFill, 1);
        const TypeParam layer = patchedStore<TypeParam>(size, c.layerFill, 2);
        const auto denseBase = base.readRect(kNoRegion);
        const auto denseLayer = layer.readRect(kNoRegion);
        std::shared_ptr<Image> expected = std::make_shared<Image>(*denseBase);
        blendImages(denseLayer, denseBase, expected, c.withMask ? mask : nullptr, c.opacity, BlendModeType::Normal,
                    kNoRegion);
        const int before = base.presentTileCount();
        base.blendWithTiledImageData(layer, c.withMask ? mask : nullptr, c.opacity);
        const auto got = base.readRect(kNoRegion);
        EXPECT_EQ(std::memcmp(got->data(), expected->data(), got->byteCount()), 0)
            << "mask " << c.withMask << " opacity " << c.opacity;
        if (!c.withMask) {
            EXPECT_LE(base.presentTileCount(), before + layer.presentTileCount());
        }
    }
    EXPECT_TRUE(balance.balanced());
}

TYPED_TEST(TiledStoreTest, BlendWithItselfChangesNothing) {
    TypeParam s = patchedStore<TypeParam>({300, 200}, kFill, 3);
    const auto before = s.readRect(kNoRegion);
    s.blendWithTiledImageData(s, nullptr, 0.5f);
    const auto after = s.readRect(kNoRegion);
    EXPECT_EQ(std::memcmp(before->data(), after->data(), before->byteCount()), 0);
}

TYPED_TEST(TiledStoreTest, BlendsRejectMismatchedInputs) {
    const std::string cls = std::is_same_v<TypeParam, KelTiledImageData> ? "zorl::KelTiledImageData" : "zorl::BarcTiledImageData";
    const std::string tiledSig = "void __cdecl " + cls + "::blendWithTiledImageData(const class " + cls +
                                 " &,const class std::shared_ptr<class zorl::_ImageData<float> const > &,float)";
    const std::string imageSig = "void __cdecl " + cls +
                                 "::blendWithImageData(const class std::shared_ptr<class zorl::_ImageData<struct "
                                 "zorl::PixelRGB<float> > const > &,const struct zorl::ResizeParameters &,const class "
                                 "std::shared_ptr<class zorl::_ImageData<float> const > &,float)";
    TypeParam s = patchedStore<TypeParam>({300, 200}, kFill, 4);
    const auto before = s.readRect(kNoRegion);
    const TypeParam other({301, 200}, kFill, nullptr);
    const auto img = noiseImage({50, 40}, 9);
    struct Case {
        std::function<void()> call;
        std::string line;
    };
    const std::vector<Case> cases = {
        {[&] { s.blendWithTiledImageData(other, nullptr, 1.f); }, tiledSig + ": Images have different sizes"},
        {[&] { s.blendWithTiledImageData(s, noiseMask({300, 199}, 1), 1.f); }, tiledSig + ": Mask has wrong size!"},
        {[&] { s.blendWithImageData(nullptr, {{50, 40}, {0, 0, 50, 40}, true}, nullptr, 1.f); }, imageSig + ": Image is null"},
        {[&] { s.blendWithImageData(img, {{50, 41}, {0, 0, 50, 40}, true}, nullptr, 1.f); },
         imageSig + ": Image size differs from the resize parameters"},
        {[&] { s.blendWithImageData(img, {{50, 40}, {0, 0, 0, 40}, true}, nullptr, 1.f); },
         imageSig + ": Image size differs from the resize parameters"},
        {[&] { s.blendWithImageData(img, {{50, 40}, {0, 0, 50, 40}, true}, noiseMask({40, 50}, 1), 1.f); },
         imageSig + ": Mask has wrong size!"},
    };
    for (const Case& c : cases) {
        test::LogCapture log;
        c.call();
        EXPECT_EQ(log.lines(), std::vector<std::string>{c.line});
    }
    const auto after = s.readRect(kNoRegion);
    EXPECT_EQ(std::memcmp(before->data(), after->data(), before->byteCount()), 0);
}

// blendWithImageData against a plain double-precision loop over the documented rule.
TYPED_TEST(TiledStoreTest, BlendWithImageDataFollowsTheResamplingRule) {
    // The store computes sample positions in float: |u| <= 300 here carries up to about
    // 300 * 2^-22 = 7e-5 pixels of error, and noise changes by at most 1 per pixel.
    constexpr double kInterpolationTolerance = 1e-4;
    const _Size<int> size{2 * TypeParam::kTileSide + 50, TypeParam::kTileSide + 40};
    struct Case {
        ResizeParameters rp;
        bool withMask;
        float opacity;
    };
    const Case cases[] = {
        {{{90, 70}, {TypeParam::kTileSide - 45, 20, 90, 70}, true}, false, 0.7f},    // equal sizes: a copy
        {{{60, 50}, {TypeParam::kTileSide - 100, 30, 250, 140}, true}, true, 1.0f},  // enlarged, bilinear
        {{{60, 50}, {-40, size.height - 60, 250, 140}, false}, true, 0.5f},          // nearest, clipped
        {{{300, 200}, {10, 10, 100, 60}, true}, false, 1.0f},                        // reduced
    };
    for (const Case& c : cases) {
        TypeParam s = patchedStore<TypeParam>(size, kFill, 6);
        const auto dense = s.readRect(kNoRegion);
        const auto img = noiseImage(c.rp.size, 11);
        const auto mask = c.withMask ? noiseMask(c.rp.size, 12) : nullptr;
        s.blendWithImageData(img, c.rp, mask, c.opacity);
        const auto got = s.readRect(kNoRegion);
        const double sx = double(c.rp.size.width) / c.rp.rect.width, sy = double(c.rp.size.height) / c.rp.rect.height;
        auto sample = [&](auto&& value, double u, int n) {
            // returns (i0, i1, f) along one axis
            (void)value;
            if (!c.rp.resizeFlag) {
                const int i = std::clamp(int(std::floor(u + 0.5)), 0, n - 1);
                return std::tuple<int, int, double>(i, i, 0.0);
            }
            const double cl = std::clamp(u, 0.0, double(n - 1));
            const int i0 = int(cl);
            return std::tuple<int, int, double>(i0, std::min(i0 + 1, n - 1), cl - i0);
        };
        double worst = 0;
        for (int y = 0; y < size.height; ++y)
            for (int x = 0; x < size.width; ++x) {
                const Pixel b = dense->at(x, y);
                double expect[3] = {b.r, b.g, b.b};
                if (c.rp.rect.contains(x, y)) {
                    const auto [x0, x1, fx] = sample(0, (x - c.rp.rect.x + 0.5) * sx - 0.5, c.rp.size.width);
                    const auto [y0, y1, fy] = sample(0, (y - c.rp.rect.y + 0.5) * sy - 0.5, c.rp.size.height);
                    auto lerp = [&](auto get) {
                        const double top = get(x0, y0) + (get(x1, y0) - get(x0, y0)) * fx;
                        const double bottom = get(x0, y1) + (get(x1, y1) - get(x0, y1)) * fx;
                        return top + (bottom - top) * fy;
                    };
                    const double alpha = c.opacity * (mask ? lerp([&](int i, int j) { return double(mask->at(i, j)); }) : 1.0);
                    const double a[3] = {lerp([&](int i, int j) { return double(img->at(i, j).r); }),
                                         lerp([&](int i, int j) { return double(img->at(i, j).g); }),
                                         lerp([&](int i, int j) { return double(img->at(i, j).b); })};
                    for (int k = 0; k < 3; ++k) expect[k] = expect[k] + (a[k] - expect[k]) * alpha;
                }
                const Pixel g = got->at(x, y);
                worst = std::max({worst, std::abs(g.r - expect[0]), std::abs(g.g - expect[1]), std::abs(g.b - expect[2])});
            }
        EXPECT_LE(worst, kInterpolationTolerance) << c.rp.rect.x << "," << c.rp.rect.y;
    }
}

TEST(KelModifiedFlags, BlendsSetTheFlagsOfTheTilesTheyChange) {
    constexpr int side = KelTiledImageData::kTileSide;
    KelTiledImageData base({4 * side, 2 * side}, kFill, ColorProfileType::sRGB());
    KelTiledImageData layer({4 * side, 2 * side}, kFill, ColorProfileType::sRGB());
    layer.setPixel({1, 1, 1}, side + 3, side + 3);  // tile 5
    base.blendWithTiledImageData(layer, nullptr, 0.5f);
    EXPECT_EQ(base.modifiedTiles(), std::vector<int>{5});
    base.clearModified();
    base.blendWithImageData(noiseImage({10, 10}, 1), {{10, 10}, {side - 5, 0, 10, 10}, true}, nullptr, 1.f);
    EXPECT_EQ(base.modifiedTiles(), (std::vector<int>{0, 1}));
    base.clearModified();
    // A different fill colour changes every pixel: every tile is modified.
    layer.setFillWith({0, 0, 0});
    base.blendWithTiledImageData(layer, nullptr, 0.5f);
    EXPECT_EQ(base.modifiedTiles().size(), std::size_t(base.tileCount()));
}

// ---- serialisation ----

template <class Store>
std::vector<uint8_t> encoded(const Store& s) {
    auto e = std::make_shared<Encoder>();
    s.encode(e);
    return e->take();
}

template <class Store>
std::shared_ptr<Store> decoded(const std::vector<uint8_t>& bytes) {
    return Store::decode(std::make_shared<Decoder>(bytes));
}

TYPED_TEST(TiledStoreTest, EncodeThenDecodeRestoresEveryPixel) {
    test::MemoryBalance balance;
    {
        for (const _Size<int> size : {_Size<int>{0, 0}, _Size<int>{1, 1}, _Size<int>{2 * TypeParam::kTileSide + 3, 150}}) {
            TypeParam s = size.isEmpty() ? TypeParam(size, kFill, ColorProfileType::melissaRGB())
                                         : patchedStore<TypeParam>(size, kFill, 8);
            s.setPixel({-3.5f, 1e30f, 0.f}, size.width - 1, size.height - 1);  // out-of-range values survive too
            const auto bytes = encoded(s);
            test::LogCapture log;
            const auto back = decoded<TypeParam>(bytes);
            ASSERT_TRUE(back);
            EXPECT_EQ(log.count(), 0u);
            EXPECT_EQ(back->size(), s.size());
            EXPECT_EQ(back->fillColor(), s.fillColor());
            EXPECT_EQ(*back->colorProfile(), *s.colorProfile());
            EXPECT_EQ(back->presentTileCount(), s.presentTileCount());
            for (int i = 0; i < s.tileCount(); ++i) EXPECT_EQ(back->hasTile(i), s.hasTile(i));
            if (!size.isEmpty()) {
                const auto a = s.readRect(kNoRegion), b = back->readRect(kNoRegion);
                EXPECT_EQ(std::memcmp(a->data(), b->data(), a->byteCount()), 0);
            }
            // Decoding starts a new editing session: nothing is modified.
            if constexpr (std::is_same_v<TypeParam, KelTiledImageData>) {
                EXPECT_TRUE(back->modifiedTiles().empty());
            }
            EXPECT_EQ(encoded(*back), bytes);  // the form is canonical
        }
    }
    EXPECT_TRUE(balance.balanced());
}

TYPED_TEST(TiledStoreTest, StreamStartsWithTheDocumentedHeader) {
    const TypeParam s({300, 200}, kFill, ColorProfileType::sRGB());
    const auto bytes = encoded(s);
    Decoder d(bytes);
    int version, w, h, kind, side;
    float r, g, b;
    ASSERT_TRUE(d.decodeInt(version) && d.decodeInt(w) && d.decodeInt(h) && d.decodeFloat(r) && d.decodeFloat(g) &&
                d.decodeFloat(b) && d.decodeInt(kind) && d.decodeInt(side));
    EXPECT_EQ(version, 1);
    EXPECT_EQ(w, 300);
    EXPECT_EQ(h, 200);
    EXPECT_EQ((Pixel{r, g, b}), kFill);
    EXPECT_EQ(kind, int(ColorProfile::Kind::sRGB));
    EXPECT_EQ(side, TypeParam::kTileSide);
    if constexpr (std::is_same_v<TypeParam, KelTiledImageData>) {
        int supertile;
        uint32_t count;
        ASSERT_TRUE(d.decodeInt(supertile) && d.decodeUint32(count));
        EXPECT_EQ(supertile, 16);
        EXPECT_EQ(count, 0u);
    } else {
        for (int i = 0; i < s.tileCount(); ++i) {
            uint8_t flag;
            ASSERT_TRUE(d.decodeUint8(flag));
            EXPECT_EQ(flag, 0);
        }
    }
    EXPECT_EQ(d.remaining(), 0u);
}

// A tile block is an ordinary tracked RGB block: the storage family reads it back as
// the tile's image.
TEST(TiledBlocks, AreTrackedRgbBlocks) {
    KelTiledImageData s({200, 100}, kFill, ColorProfileType::proPhotoRGB());
    s.setPixel({1, 0, 0.5f}, 130, 7);  // tile 1 only
    const auto bytes = encoded(s);
    Decoder d(bytes);
    int skip;
    uint32_t count, index;
    uint64_t length;
    for (int i = 0; i < 9; ++i) ASSERT_TRUE(d.decodeInt(skip));  // header, profile, tile and supertile sides
    ASSERT_TRUE(d.decodeUint32(count) && d.decodeUint32(index) && d.decodeUint64(length));
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(index, 1u);
    std::vector<uint8_t> block(length);
    ASSERT_TRUE(d.decodeData(block.data(), length));
    const auto tile = uncompressImageData(block);
    ASSERT_TRUE(tile);
    EXPECT_EQ(tile->size(), (_Size<int>{128, 128}));
    EXPECT_EQ(*tile->colorProfile(), *ColorProfileType::proPhotoRGB());
    EXPECT_EQ(tile->at(2, 7), (Pixel{1, 0, 0.5f}));
    EXPECT_EQ(tile->at(0, 0), kFill);
}

// Every truncation, and damaged fields, give null after exactly one log line.
TYPED_TEST(TiledStoreTest, DamagedStreamsAreRefusedWithOneLogLine) {
    TypeParam s({TypeParam::kTileSide + 5, 20}, kFill, ColorProfileType::sRGB());
    s.setPixel({1, 0, 0}, 3, 3);
    s.setPixel({0, 1, 0}, TypeParam::kTileSide + 1, 3);
    const auto good = encoded(s);
    test::MemoryBalance balance;
    const std::string sig = "class std::shared_ptr<class zorl::" + std::string(std::is_same_v<TypeParam, KelTiledImageData> ? "Kel" : "Barc") +
                            "TiledImageData> __cdecl zorl::" +
                            (std::is_same_v<TypeParam, KelTiledImageData> ? "Kel" : "Barc") +
                            "TiledImageData::decode(const class std::shared_ptr<class zorl::Decoder> &)";
    for (std::size_t n = 0; n < good.size(); n += 1 + n / 64) {
        test::LogCapture log;
        EXPECT_EQ(decoded<TypeParam>({good.begin(), good.begin() + n}), nullptr) << n;
        ASSERT_EQ(log.count(), 1u) << n;
        EXPECT_EQ(log.lines()[0].rfind(sig + ": ", 0), 0u) << log.lines()[0];
    }
    auto patched = [&](std::size_t offset, auto value) {
        std::vector<uint8_t> b = good;
        std::memcpy(b.data() + offset, &value, sizeof value);
        return b;
    };
    const std::size_t afterSide = 32;  // version, size, fill, profile, tile side
    const bool kel = std::is_same_v<TypeParam, KelTiledImageData>;
    // Offset of the first block's header: Kel: supertile side, count, index, length;
    // Barc: flag, length.
    const std::size_t block = afterSide + (kel ? 4 + 4 + 4 + 8 : 1 + 8);
    struct Case {
        std::vector<uint8_t> bytes;
        std::string message;
    };
    std::vector<Case> cases = {
        {patched(0, int(2)), "Unknown format version"},
        {patched(4, int(-1)), "Size out of range"},
        {patched(8, int(kMaxTiledImageSide + 1)), "Size out of range"},
        {patched(24, int(99)), "Unknown color profile"},
        {patched(28, int(64)), "Tile size differs"},
        {patched(block + 24, uint32_t(2)), "Tile block header is inconsistent"},   // field 3
        {patched(block + 36, uint32_t(3)), "Tile block header is inconsistent"},   // field 5: another profile
        {patched(block + 20, uint32_t(64)), "Tile block header is inconsistent"},  // width
        {patched(block + 56, uint32_t(0xdeadbeef)), "Tile block is corrupt: the input data was corrupted or incomplete"},
    };
    if (kel) {
        cases.push_back({patched(afterSide, int(8)), "Supertile size differs"});
        cases.push_back({patched(afterSide + 4, uint32_t(3)), "Tile count out of range"});
        cases.push_back({patched(afterSide + 8, uint32_t(2)), "Tile index out of order or out of range"});
        cases.push_back({patched(afterSide + 12, uint64_t(1) << 40), "Tile block length out of range"});
    } else {
        cases.push_back({patched(afterSide, uint8_t(2)), "Tile flag out of range"});
        cases.push_back({patched(afterSide + 1, uint64_t(1) << 40), "Tile block length out of range"});
    }
    {
        test::LogCapture log;
        EXPECT_EQ(TypeParam::decode(nullptr), nullptr);
        s.encode(nullptr);
        const std::string cls = sig.substr(sig.find("zorl::"), sig.find(">") - sig.find("zorl::"));
        EXPECT_EQ(log.lines(), (std::vector<std::string>{sig + ": Decoder is null",
                                                         "void __cdecl " + cls + "::encode(const class std::shared_ptr<class "
                                                         "zorl::Encoder> &) const: Encoder is null"}));
    }
    for (const Case& c : cases) {
        test::LogCapture log;
        EXPECT_EQ(decoded<TypeParam>(c.bytes), nullptr) << c.message;
        EXPECT_EQ(log.lines(), std::vector<std::string>{sig + ": " + c.message});
    }
    EXPECT_TRUE(balance.balanced());
}

// ---- renditions ----

// Settings of a canvas of `size` showing `region` at `working`, with an optional extra
// transform (source pixel -> canvas pixel).
ImageTransformSettings settingsFor(_Size<int> size, _Rect<float> region, _Size<int> working,
                                   const AffineTransform* extra = nullptr) {
    ImageTransformSettings s;
    s.canvasSize = size;
    s.region = region;
    s.workingSize = working;
    if (extra) {
        s.hasTransform = 1;
        s.transformParameters = *extra;
    }
    return s;
}

struct RenditionCase {
    const char* what;
    ImageTransformSettings settings;
    _Rect<int> destRect;
};

std::vector<RenditionCase> renditionCases(_Size<int> size) {
    static const AffineTransform rotation = [] {
        AffineTransform t = AffineTransform::makeRotation(0.3);
        t.append(AffineTransform::makeTranslation(40, -30));
        return t;
    }();
    static const AffineTransform flip{-1, 0, 0, 1, float(1000), 0};
    const _Rect<float> whole{0, 0, float(size.width), float(size.height)};
    return {
        {"identity", settingsFor(size, whole, size), kEmptyRect},
        {"reduced 3x (supersampled)", settingsFor(size, whole, {size.width / 3, size.height / 3}), kEmptyRect},
        {"enlarged part", settingsFor(size, {100.5f, 37.f, 60.f, 45.f}, {150, 110}), {10, 20, 90, 70}},
        {"rotated", settingsFor(size, whole, {size.width / 2, size.height / 2}, &rotation), {5, 7, 120, 60}},
        {"mirrored", settingsFor(size, {0, 0, 400, 150}, {400, 150}, &flip), kEmptyRect},
    };
}

// The current scheme renders exactly like its dense equivalent.
TEST(TiledRenditions, KelUpdateEqualsTheDenseUpdate) {
    const _Size<int> size{410, 270};
    const KelTiledImageData store = patchedStore<KelTiledImageData>(size, kFill, 21);
    const auto dense = store.readRect(kNoRegion);
    test::MemoryBalance balance;
    for (const RenditionCase& c : renditionCases(size)) {
        const TransformComputer tc(c.settings, TransformComputer::DataSourceType::ImageData);
        auto fromTiles = std::make_shared<Image>(c.settings.workingSize, Pixel{9, 9, 9}, nullptr);
        auto fromDense = std::make_shared<Image>(*fromTiles);
        tc.updateTransformedRoi(store, fromTiles, c.settings.region, c.destRect);
        tc.updateTransformedRoi(*dense, fromDense, c.settings.region, c.destRect);
        EXPECT_EQ(std::memcmp(fromTiles->data(), fromDense->data(), fromTiles->byteCount()), 0) << c.what;
        test::onOneThread([&] {
            auto one = std::make_shared<Image>(c.settings.workingSize, Pixel{9, 9, 9}, nullptr);
            tc.updateTransformedRoi(store, one, c.settings.region, c.destRect);
            EXPECT_EQ(std::memcmp(one->data(), fromDense->data(), one->byteCount()), 0) << c.what;
        });
    }
    EXPECT_TRUE(balance.balanced());
}

// The older scheme samples pixel centres: checked against a plain double-precision loop
// over that rule (centre, then Halton points when the sampling transform stretches).
TEST(TiledRenditions, BarcCreateSamplesPixelCentres) {
    // The store maps and interpolates in float; positions up to ~400 carry ~5e-5 pixels
    // of error, times noise slopes up to 1 per pixel.
    constexpr double kTolerance = 2e-4;
    const _Size<int> size{410, 270};
    const BarcTiledImageData store = patchedStore<BarcTiledImageData>(size, kFill, 22);
    const auto dense = store.readRect(kNoRegion);
    for (const RenditionCase& c : renditionCases(size)) {
        const TransformComputer tc(c.settings, TransformComputer::DataSourceType::ImageData);
        const ResizeParameters rp = tc.getWorkingResizeParameters();
        const auto got = tc.createTransformedRoi<Image>(store, rp);
        ASSERT_TRUE(got) << c.what;
        ASSERT_EQ(got->size(), rp.size);
        const AffineTransform t = c.settings.getSamplingTransform(_Rect<float>(rp.rect), rp.size);
        std::vector<std::pair<double, double>> offsets{{0.5, 0.5}};
        const double s = sampling::largestSingularValue(t);
        if (s >= 1.1)
            for (int i = 0; i < int(std::lround(std::min(2 * s, 20.0))); ++i) {
                float p[2];
                halton(i, 2, nullptr, nullptr, p);
                offsets.push_back({p[0], p[1]});
            }
        double worst = 0;
        for (int y = 0; y < rp.size.height; ++y)
            for (int x = 0; x < rp.size.width; ++x) {
                double sum[3] = {0, 0, 0};
                int valid = 0;
                for (auto [ox, oy] : offsets) {
                    const double px = t.a * (x + ox) + t.c * (y + oy) + t.tx, py = t.b * (x + ox) + t.d * (y + oy) + t.ty;
                    const double fx0 = std::floor(px), fy0 = std::floor(py);
                    if (fx0 < 0 || fy0 < 0 || fx0 >= size.width || fy0 >= size.height) continue;
                    const int ix = int(fx0), iy = int(fy0), x1 = std::min(ix + 1, size.width - 1),
                              y1 = std::min(iy + 1, size.height - 1);
                    const double fx = px - fx0, fy = py - fy0;
                    auto ch = [&](int i, int j, int k) { return double((&dense->at(i, j).r)[k]); };
                    for (int k = 0; k < 3; ++k) {
                        const double top = ch(ix, iy, k) + (ch(x1, iy, k) - ch(ix, iy, k)) * fx;
                        const double bottom = ch(ix, y1, k) + (ch(x1, y1, k) - ch(ix, y1, k)) * fx;
                        sum[k] += top + (bottom - top) * fy;
                    }
                    ++valid;
                    if (offsets.size() == 1) break;
                }
                const Pixel g = got->at(x, y);
                const double e[3] = {valid ? sum[0] / valid : 0.2, valid ? sum[1] / valid : 0.2, valid ? sum[2] / valid : 0.2};
                // A position on a pixel border may fall either side in float: skip those.
                worst = std::max({worst, std::abs(g.r - e[0]), std::abs(g.g - e[1]), std::abs(g.b - e[2])});
            }
        EXPECT_LE(worst, kTolerance) << c.what;
        // Re-rendering a rectangle gives the same pixels as the full rendition.
        auto part = std::make_shared<Image>(rp.size, Pixel{9, 9, 9}, nullptr);
        tc.updateTransformedRoi(store, part, _Rect<float>(rp.rect), kEmptyRect);
        EXPECT_EQ(std::memcmp(part->data(), got->data(), got->byteCount()), 0) << c.what;
    }
}

TEST(TiledRenditions, OnlyTheTilesTheRegionNeedsAreLookedUp) {
    const KelTiledImageData store({4096, 4096}, kFill, nullptr);
    using Access = detail::TiledSourceAccess<KelTiledImageData>;
    // Identity: pixels 1000..1050 (+2 for the corner offsets and the neighbour) lie in
    // tiles 7 and 8 on each axis.
    EXPECT_EQ(Access(store, AffineTransform(), {1000, 1000, 50, 50}).tableSize(), 4u);
    // A reduction by 4 (destination -> source): destination pixels 10..29 read source
    // pixels 40..124, all in tile 0.
    EXPECT_EQ(Access(store, AffineTransform::makeScale(4, 4), {10, 10, 20, 20}).tableSize(), 1u);
    EXPECT_EQ(Access(store, AffineTransform(), kEmptyRect).tableSize(), 0u);
    // Positions outside the table still read correctly.
    const Access a(store, AffineTransform(), {0, 0, 1, 1});
    EXPECT_EQ(a.at(4000, 4000), kFill);
}

TEST(TiledRenditions, BarcComputeUnitKeepsItsRenditionsUpToDate) {
    const _Size<int> size{600, 400};
    auto store = std::make_shared<BarcTiledImageData>(patchedStore<BarcTiledImageData>(size, kFill, 23));
    ImageDataComputeUnit<Image, BarcTiledImageData> unit(store);
    unit.setTransform(settingsFor(size, {0, 0, 600, 400}, {300, 200}));
    const auto preview = unit.preview();
    ASSERT_TRUE(preview);
    EXPECT_EQ(preview->size(), (_Size<int>{500, 333}));
    EXPECT_EQ(unit.thumbnail()->size(), (_Size<int>{120, 80}));
    ASSERT_TRUE(unit.workingImage());
    const Image previewBefore(*unit.preview());
    (void)unit.getPreviewUpdateRect();  // collect the whole-rendition rectangles
    (void)unit.getWorkingImageUpdateRect();
    // Paint, then refresh only the painted rectangle.
    const auto dab = noiseImage({30, 20}, 24);
    store->writeRect(*dab, kNoRegion, {250, 100});
    unit.updatePreview(store, {250, 100, 30, 20});
    unit.updateWorkingImage(store, {250, 100, 30, 20});
    EXPECT_FALSE(unit.hasThumbnail());
    // Inside the reported rectangle the pixels are those of a fresh rendition; outside it
    // they are untouched.
    const TransformComputer tc(unit.imageTransformSettings(), TransformComputer::DataSourceType::ImageData);
    const auto fresh = tc.createTransformedRoi<Image>(*store, {unit.getPreviewSize(), {0, 0, 600, 400}, true});
    const _Rect<int> changed = unit.getPreviewUpdateRect();
    EXPECT_FALSE(changed.isEmpty());
    const auto now = unit.preview();
    for (int y = 0; y < now->height(); ++y)
        for (int x = 0; x < now->width(); ++x)
            ASSERT_EQ(now->at(x, y), changed.contains(x, y) ? fresh->at(x, y) : previewBefore.at(x, y)) << x << "," << y;
    const auto freshWorking = tc.createTransformedRoi<Image>(*store, tc.getWorkingResizeParameters());
    const _Rect<int> changedWorking = unit.getWorkingImageUpdateRect();
    EXPECT_FALSE(changedWorking.isEmpty());
    const auto working = unit.workingImage();
    for (int y = changedWorking.y; y < changedWorking.bottom(); ++y)
        for (int x = changedWorking.x; x < changedWorking.right(); ++x)
            ASSERT_EQ(working->at(x, y), freshWorking->at(x, y)) << x << "," << y;
}

// ---- fuzz corpus ----

std::filesystem::path corpusDir() {
    const char* data = std::getenv("ZORL_TEST_DATA");
    return std::filesystem::path(data ? data : "tests/data") / ".." / ".." / "fuzz" / "corpus" / "fuzz_tiled_image_data";
}

// Every committed corpus file goes through the fuzz entry point: no crash, no exception,
// no memory left behind.
TEST(TiledImageDataFuzzCorpus, ReplaysEveryFile) {
    test::LogCapture quiet;
    test::MemoryBalance balance;
    ASSERT_TRUE(std::filesystem::is_directory(corpusDir())) << corpusDir();
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(corpusDir())) {
        std::ifstream in(entry.path(), std::ios::binary);
        const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
        SCOPED_TRACE(entry.path().string());
        EXPECT_NO_THROW(fuzz::tiledImageData(bytes.data(), bytes.size()));
        ++files;
    }
    EXPECT_GE(files, 4);
    EXPECT_TRUE(balance.balanced());
}

// Writes the seed corpus (run by hand: --gtest_also_run_disabled_tests
// --gtest_filter=TiledImageDataFuzzCorpus.DISABLED_WriteSeeds).
TEST(TiledImageDataFuzzCorpus, DISABLED_WriteSeeds) {
    std::filesystem::create_directories(corpusDir());
    auto write = [](const std::string& name, const std::vector<uint8_t>& bytes) {
        std::ofstream out(corpusDir() / name, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    };
    auto painted = [](auto store) {
        store.setPixel({1, 0, 0}, 0, 0);
        store.setPixel({0, 1, 0}, store.width() - 1, store.height() - 1);
        return encoded(store);
    };
    write("kel_fresh_300x200", encoded(KelTiledImageData({300, 200}, kFill, ColorProfileType::sRGB())));
    write("barc_fresh_300x200", encoded(BarcTiledImageData({300, 200}, kFill, ColorProfileType::proPhotoRGB())));
    write("kel_two_tiles_130x5", painted(KelTiledImageData({130, 5}, kFill, ColorProfileType::sRGB())));
    write("barc_two_tiles_260x3", painted(BarcTiledImageData({260, 3}, kFill, nullptr)));
    std::vector<uint8_t> cut = painted(KelTiledImageData({130, 5}, kFill, ColorProfileType::sRGB()));
    cut.erase(cut.end() - 7, cut.end());
    write("kel_truncated", cut);
}

}  // namespace
}  // namespace zorl
