// Tiled RGB image stores: reads, writes, fills and modified flags against a dense model,
// blends against the dense blend and the resampling rule, serialisation round trips and
// damaged streams, and renditions against the dense renditions.

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <numeric>
#include <random>
#include <tuple>
#include <vector>

#include <imageprocessing/blending.h>
#include <imageprocessing/compression.h>
#include <imageprocessing/tiled_image_data_stores.h>
#include <imageprocessing/transform_computer.h>

#include <zorl/halton/halton.h>

#include "storage/tiled_image_data_fuzz.h"
#include "support/test_support.h"

namespace zorl {
namespace {

using Pixel = PixelRGB<float>;
using Image = _ImageData<Pixel>;
using Bytes = std::vector<uint8_t>;

constexpr Pixel kFill{0.25f, 0.5f, 0.75f};

template <class Store>
constexpr bool kIsKel = std::is_same_v<Store, KelTiledImageData>;
template <class Store>
const std::string kClass = kIsKel<Store> ? "zorl::KelTiledImageData" : "zorl::BarcTiledImageData";

// The dense model of a store: every operation written as a plain loop over all pixels.
struct DenseModel {
    int w, h;
    std::vector<Pixel> px;
    DenseModel(int width, int height, Pixel fill) : w(width), h(height), px(std::size_t(width) * height, fill) {}
    Pixel& at(int x, int y) { return px[std::size_t(y) * w + x]; }
    void write(const Image& src, _Rect<int> srcRect, _Point<int> to) {
        for (int sy = srcRect.y; sy < srcRect.bottom(); ++sy)
            for (int sx = srcRect.x; sx < srcRect.right(); ++sx) {
                const int x = to.x + sx - srcRect.x, y = to.y + sy - srcRect.y;
                if (src.rect().contains(sx, sy) && _Rect<int>{0, 0, w, h}.contains(x, y)) at(x, y) = src.at(sx, sy);
            }
    }
    void fill(_Rect<int> r, Pixel v) {
        for (int y = std::max(0, r.y); y < std::min(h, r.bottom()); ++y)
            for (int x = std::max(0, r.x); x < std::min(w, r.right()); ++x) at(x, y) = v;
    }
};

template <class Store>
::testing::AssertionResult equalsModel(const Store& s, DenseModel& m) {
    const auto all = s.readRect(kNoRegion);
    if (!all || all->width() != m.w || all->height() != m.h) return ::testing::AssertionFailure() << "bad read";
    for (int y = 0; y < m.h; ++y)
        for (int x = 0; x < m.w; ++x)
            if (!(all->at(x, y) == m.at(x, y)) || !(s.getPixel(x, y) == m.at(x, y)))
                return ::testing::AssertionFailure() << "differs at (" << x << ", " << y << ")";
    return ::testing::AssertionSuccess();
}

bool samePixels(const Image& a, const Image& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.byteCount()) == 0;
}

// Seeded noise in 0..1: an sRGB image, or (T = float) an untagged mask.
template <class T = Pixel>
std::shared_ptr<_ImageData<T>> noise(_Size<int> size, uint32_t seed) {
    auto img = std::make_shared<_ImageData<T>>(size, std::is_same_v<T, float> ? nullptr : ColorProfileType::sRGB());
    const std::vector<float> v = test::noise(img->pixelCount() * sizeof(T) / sizeof(float), seed);
    std::memcpy(img->data(), v.data(), v.size() * sizeof(float));
    return img;
}

// A store with a few patches: some tiles present, most absent.
template <class Store>
Store patchedStore(_Size<int> size, Pixel fill, uint32_t seed) {
    Store s(size, fill, ColorProfileType::sRGB());
    std::mt19937 rng(seed);
    for (int k = 0; k < 3; ++k) {
        const auto patch = noise({40 + int(rng() % 60), 30 + int(rng() % 40)}, seed * 10 + k);
        s.writeRect(*patch, kNoRegion, {int(rng() % size.width) - 20, int(rng() % size.height) - 20});
    }
    return s;
}

template <class Store>
Bytes encoded(const Store& s) {
    auto e = std::make_shared<Encoder>();
    s.encode(e);
    return e->take();
}

// Every test leaves MemoryManager as it found it.
template <class Store>
class TiledStore : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_TRUE(balance.balanced()); }
    test::MemoryBalance balance;
};
using Stores = ::testing::Types<KelTiledImageData, BarcTiledImageData>;
TYPED_TEST_SUITE(TiledStore, Stores);
using KelStore = TiledStore<KelTiledImageData>;
using BarcStore = TiledStore<BarcTiledImageData>;

// ---------------------------------------------------------------- reads, writes, fills

TYPED_TEST(TiledStore, AbsentTilesReadAsTheFillColour) {
    const int side = TypeParam::kTileSide;
    const TypeParam s({4 * side + 1, 3 * side - 5}, kFill, ColorProfileType::proPhotoRGB());
    EXPECT_EQ(s.getTileRect(14), (_Rect<int>{4 * side, 2 * side, 1, side - 5}));  // the last of 5 x 3, clipped
    for (auto [x, y] : {std::pair{0, 0}, {4 * side, 3 * side - 6}, {-1, 0}, {4 * side + 1, 0}}) EXPECT_EQ(s.getPixel(x, y), kFill);
    const auto r = s.readRect({side - 20, 30, 2 * side, side});
    ASSERT_TRUE(r && *r->colorProfile() == *ColorProfileType::proPhotoRGB());
    EXPECT_TRUE(samePixels(*r, Image(_Size<int>{2 * side, side}, kFill, nullptr)));
    EXPECT_EQ(s.presentTileCount(), 0);  // reading materialises nothing
    EXPECT_EQ(s.readRect({4 * side + 1, 0, 5, 5}), nullptr);  // wholly outside
    EXPECT_EQ(s.readRect({4 * side - 9, 0, 50, 50})->size(), (_Size<int>{10, 50}));  // clipped
}

// Random writes, fills and single pixels across tile (and, for the current scheme,
// supertile) borders, checked against the dense model, on many threads and on one.
TYPED_TEST(TiledStore, WritesAcrossTileBordersMatchTheDenseModel) {
    const _Size<int> size{2100, 300};  // two supertiles of the current scheme side by side
    TypeParam s(size, kFill, ColorProfileType::sRGB());
    DenseModel m(size.width, size.height, kFill);
    std::mt19937 rng(7);
    auto coord = [&](int hi) { return std::uniform_int_distribution<int>(-40, hi + 10)(rng); };
    for (int step = 0; step < 40; ++step) {
        const _Rect<int> r{coord(size.width), coord(size.height), 1 + int(rng() % 300), 1 + int(rng() % 200)};
        if (step % 4 < 2) {
            const auto src = noise({1 + int(rng() % 200), 1 + int(rng() % 150)}, step);
            // A source rectangle that may stick out of the source on any side.
            const _Rect<int> srcRect = step % 4 == 0 ? kNoRegion : _Rect<int>{int(rng() % 40) - 20, int(rng() % 40) - 20, 150, 120};
            s.writeRect(*src, srcRect, {r.x, r.y});
            m.write(*src, srcRect == kNoRegion ? src->rect() : srcRect, {r.x, r.y});
        } else if (step % 4 == 2) {
            const Pixel v = step % 8 == 2 ? kFill : Pixel{float(step) / 40, 0.1f, 0.9f};
            s.fillRoi(r, v);
            m.fill(r, v);
        } else {
            s.setPixel({0.f, float(step), 1.f}, r.x, r.y);
            if (_Rect<int>{0, 0, m.w, m.h}.contains(r.x, r.y)) m.at(r.x, r.y) = {0.f, float(step), 1.f};
        }
    }
    EXPECT_TRUE(equalsModel(s, m));
    const auto many = s.readRect({100, 50, 1900, 200});
    test::onOneThread([&] { EXPECT_TRUE(samePixels(*s.readRect({100, 50, 1900, 200}), *many)); });
}

// Memory follows the tiles (and supertiles) touched; whole-tile fills with the fill colour
// release tiles; copies are deep.
TYPED_TEST(TiledStore, OnlyTouchedTilesAreHeld) {
    constexpr int side = TypeParam::kTileSide, block = kIsKel<TypeParam> ? 16 * side : side;  // a supertile
    TypeParam s({2 * block + 10, block + 10}, kFill, ColorProfileType::sRGB());
    const auto dab = noise({4, 4}, 1);
    s.writeRect(*dab, kNoRegion, {block - 2, block - 2});  // a corner shared by four tiles (and supertiles)
    EXPECT_EQ(s.presentTileCount(), 4);
    EXPECT_LT(s.heldBytes(), 4u * side * side * sizeof(Pixel) + 64u * 1024);
    EXPECT_EQ(s.tilePixels(block / side, block / side)[0], dab->at(2, 2));  // the tile right and below the corner
    if constexpr (kIsKel<TypeParam>) { EXPECT_EQ(s.presentSupertileCount(), 4); }
    TypeParam copy(s);
    s.fillRoi({0, 0, block, block}, kFill);  // covers the tile left and above the corner: released
    s.fillRoi({block, block, 1, 1}, kFill);  // partial: kept
    EXPECT_EQ(s.presentTileCount(), 3);
    if constexpr (kIsKel<TypeParam>) { EXPECT_EQ(s.presentSupertileCount(), 3); }
    EXPECT_EQ(copy.getPixel(block, block), dab->at(2, 2));
    copy = s;
    EXPECT_EQ(copy.getPixel(block - 1, block - 1), kFill);
    s.fillRoi(kNoRegion, {1.f, 0.f, 0.f});  // the whole image: no tiles, a new fill colour
    EXPECT_EQ(std::pair(s.presentTileCount(), s.fillColor()), std::pair(0, Pixel{1.f, 0.f, 0.f}));
    EXPECT_EQ(copy.presentTileCount(), 3);
}

// Every kind of write, blends included, sets the flags of exactly the tiles it changes.
TEST_F(KelStore, ModifiedFlags) {
    constexpr int side = KelTiledImageData::kTileSide;
    KelTiledImageData s({4 * side, 3 * side}, kFill, ColorProfileType::sRGB());
    KelTiledImageData layer({4 * side, 3 * side}, kFill, ColorProfileType::sRGB());
    layer.setPixel({1, 1, 1}, side + 3, side + 3);  // tile 5; the blends go first, over a fresh store
    const int nx = s.tilesX();
    std::vector<int> all(s.tileCount());
    std::iota(all.begin(), all.end(), 0);
    const auto patch = noise({3, 3}, 2);
    const std::tuple<const char*, std::function<void()>, std::vector<int>> cases[] = {
        {"tiled blend", [&] { s.blendWithTiledImageData(layer, nullptr, 0.5f); }, {5}},
        {"image blend", [&] { s.blendWithImageData(patch, {{3, 3}, {side - 1, 0, 3, 3}, true}, nullptr, 1.f); }, {0, 1}},
        {"setPixel", [&] { s.setPixel(kFill, side + 1, 1); }, {1}},
        {"writeRect", [&] { s.writeRect(*patch, kNoRegion, {side - 1, 2 * side - 1}); }, {nx, nx + 1, 2 * nx, 2 * nx + 1}},
        {"fillRoi", [&] { s.fillRoi({3 * side, 0, 2, 2 * side + 1}, {1, 1, 1}); }, {3, nx + 3, 2 * nx + 3}},
        {"fillRoi release", [&] { s.fillRoi({side, 0, side, side}, kFill); }, {1}},  // a release is a change
        {"read", [&] { (void)s.readRect(kNoRegion); (void)s.getPixel(5, 5); }, {}},
        {"outside", [&] { s.setPixel(kFill, -1, 0); s.writeRect(*patch, kNoRegion, {9999, 0}); }, {}},
        // A different fill colour changes every pixel: every tile.
        {"tiled blend, other fill",
         [&] { layer.setFillWith({0, 0, 0}); s.blendWithTiledImageData(layer, nullptr, 0.5f); }, all},
        {"setFillWith", [&] { s.setFillWith({0, 0, 0}); }, all},
    };
    for (const auto& [what, write, tiles] : cases) {
        s.clearModified();
        write();
        EXPECT_EQ(s.modifiedTiles(), tiles) << what;
        for (int i : tiles) EXPECT_TRUE(s.isTileModified(i)) << what;
    }
    s.clearModified(5);  // one flag cleared; the copy keeps the others
    EXPECT_TRUE(!s.isTileModified(5) && s.isTileModified(4));
    EXPECT_EQ(KelTiledImageData(s).modifiedTiles(), s.modifiedTiles());
}

// ---------------------------------------------------------------- blends

TYPED_TEST(TiledStore, BlendWithTiledImageDataEqualsTheDenseBlend) {
    const _Size<int> size{3 * TypeParam::kTileSide - 30, 2 * TypeParam::kTileSide - 7};
    const auto mask = noise<float>(size, 5);
    const std::tuple<bool, Pixel, float> cases[] = {  // mask, layer fill, opacity
        {false, kFill, 0.6f}, {false, {0.9f, 0.1f, 0.0f}, 0.35f}, {true, {0.9f, 0.1f, 0.0f}, 1.0f}, {false, {0.f, 0.f, 0.f}, 0.0f}};
    for (const auto& [withMask, layerFill, opacity] : cases) {
        TypeParam base = patchedStore<TypeParam>(size, kFill, 1);
        const TypeParam layer = patchedStore<TypeParam>(size, layerFill, 2);
        const auto denseBase = base.readRect(kNoRegion);
        auto expected = std::make_shared<Image>(*denseBase);
        blendImages(layer.readRect(kNoRegion), denseBase, expected, withMask ? mask : nullptr, opacity,
                    BlendModeType::Normal, kNoRegion);
        const int before = base.presentTileCount();
        base.blendWithTiledImageData(layer, withMask ? mask : nullptr, opacity);
        EXPECT_TRUE(samePixels(*base.readRect(kNoRegion), *expected)) << "mask " << withMask << " opacity " << opacity;
        EXPECT_TRUE(withMask || base.presentTileCount() <= before + layer.presentTileCount());
    }
    TypeParam s = patchedStore<TypeParam>(size, kFill, 3);  // over itself: no change
    const auto before = s.readRect(kNoRegion);
    s.blendWithTiledImageData(s, nullptr, 0.5f);
    EXPECT_TRUE(samePixels(*s.readRect(kNoRegion), *before));
}

// Sample positions along one axis of a rendition of n pixels: (i0, i1, weight of i1);
// bilinear with clamped edges, or the nearest pixel.
std::tuple<int, int, double> axisSample(double u, int n, bool bilinear) {
    if (!bilinear) {
        const int i = std::clamp(int(std::floor(u + 0.5)), 0, n - 1);
        return {i, i, 0.0};
    }
    const double c = std::clamp(u, 0.0, double(n - 1));
    return {int(c), std::min(int(c) + 1, n - 1), c - int(c)};
}

// blendWithImageData against a plain double-precision loop over the documented rule.
TYPED_TEST(TiledStore, BlendWithImageDataFollowsTheResamplingRule) {
    // The store computes sample positions in float: |u| <= 300 here carries up to about
    // 300 * 2^-22 = 7e-5 pixels of error, and noise changes by at most 1 per pixel.
    constexpr double kInterpolationTolerance = 1e-4;
    const int side = TypeParam::kTileSide;
    const _Size<int> size{2 * side + 50, side + 40};
    const std::tuple<ResizeParameters, bool, float> cases[] = {  // rendition, mask, opacity
        {{{90, 70}, {side - 45, 20, 90, 70}, true}, false, 0.7f},    // equal sizes: a copy
        {{{60, 50}, {side - 100, 30, 250, 140}, true}, true, 1.0f},  // enlarged, bilinear
        {{{60, 50}, {-40, size.height - 60, 250, 140}, false}, true, 0.5f},  // nearest, clipped
        {{{300, 200}, {10, 10, 100, 60}, true}, false, 1.0f},                // reduced
    };
    for (const auto& [rp, withMask, opacity] : cases) {
        TypeParam s = patchedStore<TypeParam>(size, kFill, 6);
        const auto dense = s.readRect(kNoRegion);
        const auto img = noise(rp.size, 11);
        const auto mask = withMask ? noise<float>(rp.size, 12) : nullptr;
        s.blendWithImageData(img, rp, mask, opacity);
        const auto got = s.readRect(kNoRegion);
        double worst = 0;
        for (int y = 0; y < size.height; ++y)
            for (int x = 0; x < size.width; ++x) {
                const Pixel b = dense->at(x, y), g = got->at(x, y);
                double expect[3] = {b.r, b.g, b.b};
                if (rp.rect.contains(x, y)) {
                    const double u = (x - rp.rect.x + 0.5) * rp.size.width / rp.rect.width - 0.5;
                    const double v = (y - rp.rect.y + 0.5) * rp.size.height / rp.rect.height - 0.5;
                    const auto [x0, x1, fx] = axisSample(u, rp.size.width, rp.resizeFlag);
                    const auto [y0, y1, fy] = axisSample(v, rp.size.height, rp.resizeFlag);
                    auto lerp = [&](auto get) {
                        const double top = get(x0, y0) + (get(x1, y0) - get(x0, y0)) * fx;
                        return top + (get(x0, y1) + (get(x1, y1) - get(x0, y1)) * fx - top) * fy;
                    };
                    const double alpha = opacity * (mask ? lerp([&](int i, int j) { return double(mask->at(i, j)); }) : 1.0);
                    for (int k = 0; k < 3; ++k) {
                        const double a = lerp([&](int i, int j) { return double((&img->at(i, j).r)[k]); });
                        expect[k] += (a - expect[k]) * alpha;
                    }
                }
                worst = std::max({worst, std::abs(g.r - expect[0]), std::abs(g.g - expect[1]), std::abs(g.b - expect[2])});
            }
        EXPECT_LE(worst, kInterpolationTolerance) << rp.rect.x << "," << rp.rect.y;
    }
}

// ---------------------------------------------------------------- serialisation

// The documented header, then tile entries whose blocks are ordinary tracked RGB blocks;
// decoding restores every pixel, and the form is canonical.
TYPED_TEST(TiledStore, EncodeThenDecodeRestoresEveryPixel) {
    const int side = TypeParam::kTileSide;
    TypeParam one({side + 5, 20}, kFill, ColorProfileType::proPhotoRGB());
    one.setPixel({1, 0, 0.5f}, side + 2, 7);  // tile 1 only
    const Bytes bytes = encoded(one);
    Encoder head;  // version, size, fill, profile, tile side; supertile side, tile count, index; or a flag per tile
    for (int f : {1, side + 5, 20}) head.encodeInt(f);
    for (float c : {kFill.r, kFill.g, kFill.b}) head.encodeFloat(c);
    for (int f : {int(ColorProfile::Kind::ProPhotoRGB), side}) head.encodeInt(f);
    if constexpr (kIsKel<TypeParam>) for (int f : {16, 1, 1}) head.encodeInt(f);
    else for (int flag : {0, 1}) head.encodeUint8(uint8_t(flag));
    const std::size_t n = head.data().size();
    ASSERT_GT(bytes.size(), n + 8);
    EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + n), head.data());
    uint64_t length;  // then the tile's block
    std::memcpy(&length, bytes.data() + n, 8);
    ASSERT_EQ(bytes.size(), n + 8 + length);
    const auto tile = uncompressImageData(Bytes(bytes.begin() + n + 8, bytes.end()));
    ASSERT_TRUE(tile && tile->size() == (_Size<int>{side, side}) && *tile->colorProfile() == *ColorProfileType::proPhotoRGB());
    EXPECT_EQ(std::pair(tile->at(2, 7), tile->at(0, 0)), std::pair(Pixel{1, 0, 0.5f}, kFill));
    TypeParam s = patchedStore<TypeParam>({2 * side + 3, 150}, kFill, 8);
    s.setPixel({-3.5f, 1e30f, 0.f}, 2 * side + 2, 149);  // out-of-range values survive too
    test::LogCapture log;
    const auto back = TypeParam::decode(std::make_shared<Decoder>(encoded(s)));
    ASSERT_TRUE(back && log.count() == 0u);
    EXPECT_TRUE(samePixels(*back->readRect(kNoRegion), *s.readRect(kNoRegion)));
    if constexpr (kIsKel<TypeParam>) { EXPECT_TRUE(back->modifiedTiles().empty()); }  // a new editing session
    EXPECT_EQ(encoded(*back), encoded(s));  // the form is canonical: size, fill, profile and tiles too
}

// Every truncation, and a hostile block length, give null after exactly one log line.
TYPED_TEST(TiledStore, DamagedStreamsAreRefusedWithOneLogLine) {
    TypeParam s({TypeParam::kTileSide + 5, 20}, kFill, ColorProfileType::sRGB());
    s.setPixel({1, 0, 0}, TypeParam::kTileSide + 1, 3);  // tile 1 only
    Bytes good = encoded(s);
    const std::string sig = "class std::shared_ptr<class " + kClass<TypeParam> + "> __cdecl " + kClass<TypeParam> +
                            "::decode(const class std::shared_ptr<class zorl::Decoder> &): ";
    for (std::size_t n = 0; n < good.size(); n += 1 + n / 64) {
        test::LogCapture log;
        EXPECT_EQ(TypeParam::decode(std::make_shared<Decoder>(good.data(), n)), nullptr) << n;
        ASSERT_EQ(log.count(), 1u) << n;
        EXPECT_EQ(log.lines()[0].rfind(sig, 0), 0u) << log.lines()[0];
    }
    // Tile 1's block length follows 32 header bytes and the supertile side, tile count and
    // index (current scheme) or the flags of tiles 0 and 1 (older scheme).
    const uint64_t huge = uint64_t(1) << 40;
    std::memcpy(good.data() + 32 + (kIsKel<TypeParam> ? 12 : 2), &huge, sizeof huge);
    test::LogCapture log;
    EXPECT_EQ(TypeParam::decode(std::make_shared<Decoder>(good)), nullptr);
    EXPECT_EQ(log.lines(), std::vector<std::string>{sig + "Tile block length out of range"});
}

// ---------------------------------------------------------------- renditions

// Renditions of a 410 x 270 canvas: (what, settings, destination rectangle). The extra
// transform maps source pixels to canvas pixels.
std::vector<std::tuple<const char*, ImageTransformSettings, _Rect<int>>> renditionCases() {
    auto settings = [](_Rect<float> region, _Size<int> working, const AffineTransform* extra = nullptr) {
        ImageTransformSettings s;
        s.canvasSize = {410, 270};
        s.region = region;
        s.workingSize = working;
        s.hasTransform = extra != nullptr;
        if (extra) s.transformParameters = *extra;
        return s;
    };
    AffineTransform rotation = AffineTransform::makeRotation(0.3);
    rotation.append(AffineTransform::makeTranslation(40, -30));
    const AffineTransform flip{-1, 0, 0, 1, 1000.f, 0};
    return {
        {"identity", settings({0, 0, 410, 270}, {410, 270}), kEmptyRect},
        {"reduced 3x (supersampled)", settings({0, 0, 410, 270}, {136, 90}), kEmptyRect},
        {"enlarged part", settings({100.5f, 37.f, 60.f, 45.f}, {150, 110}), {10, 20, 90, 70}},
        {"rotated", settings({0, 0, 410, 270}, {205, 135}, &rotation), {5, 7, 120, 60}},
        {"mirrored", settings({0, 0, 400, 150}, {400, 150}, &flip), kEmptyRect},
    };
}

// The current scheme renders exactly like its dense equivalent, on many threads and on one.
TEST_F(KelStore, UpdateEqualsTheDenseUpdate) {
    const auto store = patchedStore<KelTiledImageData>({410, 270}, kFill, 21);
    const auto dense = store.readRect(kNoRegion);
    for (const auto& [what, settings, destRect] : renditionCases()) {
        const TransformComputer tc(settings, TransformComputer::DataSourceType::ImageData);
        auto render = [&](const auto& source) {
            auto out = std::make_shared<Image>(settings.workingSize, Pixel{9, 9, 9}, nullptr);
            tc.updateTransformedRoi(source, out, settings.region, destRect);
            return out;
        };
        const auto fromDense = render(*dense);
        EXPECT_TRUE(samePixels(*render(store), *fromDense)) << what;
        test::onOneThread([&] { EXPECT_TRUE(samePixels(*render(store), *fromDense)) << what; });
    }
}

// The older scheme samples pixel centres: checked against a plain double-precision loop
// over that rule (centre, then Halton points when the sampling transform stretches).
TEST_F(BarcStore, CreateSamplesPixelCentres) {
    // The store maps and interpolates in float; positions up to ~400 carry ~5e-5 pixels
    // of error, times noise slopes up to 1 per pixel.
    constexpr double kTolerance = 2e-4;
    const auto store = patchedStore<BarcTiledImageData>({410, 270}, kFill, 22);
    const auto dense = store.readRect(kNoRegion);
    for (const auto& [what, settings, destRect] : renditionCases()) {
        const TransformComputer tc(settings, TransformComputer::DataSourceType::ImageData);
        const ResizeParameters rp = tc.getWorkingResizeParameters();
        const auto got = tc.createTransformedRoi<Image>(store, rp);
        ASSERT_TRUE(got && got->size() == rp.size) << what;
        const AffineTransform t = settings.getSamplingTransform(_Rect<float>(rp.rect), rp.size);
        std::vector<std::pair<double, double>> offsets{{0.5, 0.5}};
        const double stretch = sampling::largestSingularValue(t);
        for (int i = 0; stretch >= 1.1 && i < int(std::lround(std::min(2 * stretch, 20.0))); ++i) {
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
                    if (fx0 < 0 || fy0 < 0 || fx0 >= 410 || fy0 >= 270) continue;
                    const int ix = int(fx0), iy = int(fy0), x1 = std::min(ix + 1, 409), y1 = std::min(iy + 1, 269);
                    const double fx = px - fx0, fy = py - fy0;
                    auto ch = [&](int i, int j, int k) { return double((&dense->at(i, j).r)[k]); };
                    for (int k = 0; k < 3; ++k) {
                        const double top = ch(ix, iy, k) + (ch(x1, iy, k) - ch(ix, iy, k)) * fx;
                        sum[k] += top + (ch(ix, y1, k) + (ch(x1, y1, k) - ch(ix, y1, k)) * fx - top) * fy;
                    }
                    ++valid;
                    if (offsets.size() == 1) break;
                }
                const Pixel g = got->at(x, y);
                for (int k = 0; k < 3; ++k)
                    worst = std::max(worst, std::abs((&g.r)[k] - (valid ? sum[k] / valid : 0.2)));
            }
        EXPECT_LE(worst, kTolerance) << what;
        // Re-rendering a rectangle gives the same pixels as the full rendition.
        auto part = std::make_shared<Image>(rp.size, Pixel{9, 9, 9}, nullptr);
        tc.updateTransformedRoi(store, part, _Rect<float>(rp.rect), kEmptyRect);
        EXPECT_TRUE(samePixels(*part, *got)) << what;
    }
}

// ---------------------------------------------------------------- fuzz corpus

std::filesystem::path corpusDir() { return test::fuzzCorpusDir("fuzz_tiled_image_data"); }

// Every committed corpus file goes through the fuzz entry point: no crash, no exception,
// no memory left behind.
TEST(TiledImageDataFuzzCorpus, ReplaysEveryFile) {
    test::LogCapture quiet;
    test::MemoryBalance balance;
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(corpusDir())) {
        std::ifstream in(entry.path(), std::ios::binary);
        const Bytes bytes{std::istreambuf_iterator<char>(in), {}};
        EXPECT_NO_THROW(fuzz::tiledImageData(bytes.data(), bytes.size())) << entry.path();
        ++files;
    }
    EXPECT_GE(files, 4);
    EXPECT_TRUE(balance.balanced());
}

// Writes the seed corpus (run by hand: --gtest_also_run_disabled_tests
// --gtest_filter=TiledImageDataFuzzCorpus.DISABLED_WriteSeeds).
TEST(TiledImageDataFuzzCorpus, DISABLED_WriteSeeds) {
    std::filesystem::create_directories(corpusDir());
    auto write = [](const std::string& name, const Bytes& bytes) {
        std::ofstream(corpusDir() / name, std::ios::binary | std::ios::trunc)
            .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
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
    Bytes cut = painted(KelTiledImageData({130, 5}, kFill, ColorProfileType::sRGB()));
    cut.erase(cut.end() - 7, cut.end());
    write("kel_truncated", cut);
}

}  // namespace
}  // namespace zorl
