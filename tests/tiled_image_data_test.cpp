// Tiled RGB image stores: reads, writes, fills and modified flags against a dense model,
// serialisation round trips and hostile streams, blends against the dense blend, and
// renditions against the dense renditions.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <tuple>

#include <memory>
#include <random>
#include <vector>

#include <imageprocessing/blending.h>
#include <imageprocessing/tiled_image_data_stores.h>

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
        if (!c.withMask) EXPECT_LE(base.presentTileCount(), before + layer.presentTileCount());
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

}  // namespace
}  // namespace zorl
