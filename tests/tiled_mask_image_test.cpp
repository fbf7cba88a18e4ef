#include <imageprocessing/tiled_mask_image.h>

#include <imageprocessing/compression.h>

#include <array>
#include <cmath>
#include <cstring>

#include "support/test_support.h"

namespace zorl {
namespace {

using Bytes = std::vector<uint8_t>;
using test::MemoryBalance;

// Two byte planes keep a value in 0..1 within half a step of 1/65025 (plus one division's
// float rounding).
constexpr float kTwoPlaneTolerance = 1.0f / 130050.0f + 1e-7f;

// Plain reference: a dense array and the same edits.
struct Dense {
    int w, h;
    std::vector<float> v;
    Dense(int width, int height, float fill) : w(width), h(height), v(std::size_t(width) * height, fill) {}
    float& at(int x, int y) { return v[std::size_t(y) * w + x]; }
    void fill(_Rect<int> r, float value) {
        for (int y = std::max(0, r.y); y < std::min(h, r.bottom()); ++y)
            for (int x = std::max(0, r.x); x < std::min(w, r.right()); ++x) at(x, y) = value;
    }
};

::testing::AssertionResult sameAs(const TiledMaskImage& m, const Dense& d, float tolerance = 0.0f) {
    if (m.width() != d.w || m.height() != d.h) return ::testing::AssertionFailure() << "size differs";
    for (int y = 0; y < d.h; ++y)
        for (int x = 0; x < d.w; ++x) {
            const float a = m.getValue(x, y), b = d.v[std::size_t(y) * d.w + x];
            if (!(std::fabs(a - b) <= tolerance))
                return ::testing::AssertionFailure() << "pixel (" << x << ", " << y << "): " << a << " vs " << b;
        }
    return ::testing::AssertionSuccess();
}

// Paints a soft round dab (values k/255, so they survive mask compression exactly).
void dab(TiledMaskImage& m, Dense* d, int cx, int cy, int radius) {
    for (int y = std::max(0, cy - radius); y <= std::min(m.height() - 1, cy + radius); ++y)
        for (int x = std::max(0, cx - radius); x <= std::min(m.width() - 1, cx + radius); ++x) {
            const double r = std::hypot(x - cx, y - cy) / radius;
            if (r > 1.0) continue;
            const float v = float(int((1.0 - r) * 255.0)) / 255.0f;
            m.setValue(v, x, y);
            if (d) d->at(x, y) = v;
        }
}

Bytes encoded(const TiledMaskImage& m, bool compressed) {
    auto e = std::make_shared<Encoder>();
    m.encode(e, compressed);
    return e->take();
}

TiledMaskImage decoded(const Bytes& b) { return TiledMaskImage(std::make_shared<Decoder>(b)); }

// A stream header: version, the compressed flag (from version 2), width, height, fill, tile
// width and height, tiles across and down.
void encodeHeader(Encoder& e, int version, bool compressed, std::array<int, 6> fields, float fill) {
    e.encodeInt(version);
    if (version >= 2) e.encodeUint8(compressed);
    for (int i = 0; i < 6; ++i) {
        if (i == 2) e.encodeFloat(fill);
        e.encodeInt(fields[i]);
    }
}

// Every test leaves MemoryManager as it found it.
class TiledMask : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_TRUE(balance.balanced()); }
    MemoryBalance balance;
};

// ---------------------------------------------------------------- geometry and constant masks

TEST_F(TiledMask, TileGridAndTheEdgeColumn) {
    TiledMaskImage m(_Size<int>(301, 300), 0.0f);
    EXPECT_EQ(std::pair(m.tilesX(), m.tilesY()), std::pair(2, 1));
    EXPECT_EQ(m.tileIndex(300, 0), 1);
    EXPECT_EQ(m.getTileRect(1), _Rect<int>(300, 0, 1, 300));
    EXPECT_EQ(m.getTileRect(2), kEmptyRect);
    m.setValue(0.7f, 300, 0);
    ASSERT_TRUE(m.presentTileCount() == 1 && m.tile(1));
    EXPECT_EQ(m.tile(1)->size(), _Size<int>(300, 300));  // edge tiles are full size
    EXPECT_EQ(m.tile(1)->at(0, 0), 0.7f);                // column 0 of tile 1
    EXPECT_EQ(std::pair(m.getValue(300, 0), m[300]), std::pair(0.7f, 0.7f));
    EXPECT_EQ(m[301 * 5 + 2], 0.0f);
}

TEST_F(TiledMask, FreshMaskReadsFillAndEncodesAllFlagsZero) {
    TiledMaskImage m(_Size<int>(301, 300), 0.25f);
    for (auto [x, y] : {std::pair{0, 0}, {300, 299}, {150, 7}}) EXPECT_EQ(m.getValue(x, y), 0.25f);
    for (bool compressed : {false, true}) {
        Encoder expected;
        encodeHeader(expected, 2, compressed, {301, 300, 300, 300, 2, 1}, 0.25f);
        for (int flag = 0; flag < 3; ++flag) expected.encodeUint8(0);  // two tiles, the whole image
        EXPECT_EQ(encoded(m, compressed), expected.data());
    }
}

// Whole-mask edits reset to a constant; a constant stays without tiles. isEmpty and isFilled
// look at present tiles only.
TEST_F(TiledMask, ConstantMasksHoldNoTiles) {
    TiledMaskImage m(_Size<int>(700, 700), 1.0f);
    EXPECT_TRUE(m.isEmpty() && m.isFilled(1.0f) && m.isFilled(0.3f));
    m.setValue(1.0f, 10, 10);  // the fill value creates nothing
    m.fillRoi(_Rect<int>(5, 5, 20, 20), 1.0f);
    EXPECT_EQ(m.presentTileCount(), 0u);
    dab(m, nullptr, 300, 300, 20);
    ASSERT_EQ(m.presentTileCount(), 4u);
    EXPECT_FALSE(m.isEmpty());  // the tiles hold 1.0 around the dab
    m.fillRoi(kNoRegion, 0.3f);  // the empty rectangle is the whole mask
    EXPECT_EQ(std::pair(m.presentTileCount(), m.fillValue()), std::pair(std::size_t(0), 0.3f));
    dab(m, nullptr, 300, 300, 20);
    m.setFilled();
    EXPECT_EQ(m.presentTileCount(), 0u);
    EXPECT_TRUE(sameAs(m, Dense(700, 700, 1.0f)));
    m.setEmpty();
    m.setFillWith(0.25f);
    m.invert();
    EXPECT_EQ(std::pair(m.presentTileCount(), m.fillValue()), std::pair(std::size_t(0), 0.75f));
    EXPECT_EQ(m.getValue(699, 699), 0.75f);
}

TEST_F(TiledMask, BrushDabOnAHundredMegapixelsHoldsAtMostFourTiles) {
    TiledMaskImage m(_Size<int>(10000, 10000), 0.0f);
    dab(m, nullptr, 5990, 2990, 25);  // straddles tile corners at (6000, 3000)
    EXPECT_EQ(std::pair(m.presentTileCount(), m.getValue(5990, 2990)), std::pair(std::size_t(4), 1.0f));
    EXPECT_LE(MemoryManager::instance().liveBytes(), 4u * 300 * 300 * sizeof(float) + (1u << 16));
}

// ---------------------------------------------------------------- edits against a dense reference

// Fills, then the zero count (unprepared and prepared) and invert (on many threads and on one).
TEST_F(TiledMask, EditsMatchADenseReference) {
    TiledMaskImage m(_Size<int>(650, 610), 0.0f);
    Dense d(650, 610, 0.0f);
    const std::pair<_Rect<int>, float> fills[] = {
        {{10, 10, 50, 40}, 0.5f},        // inside tile 0
        {{290, 290, 20, 20}, 1.0f},      // four tiles
        {{-20, 500, 2000, 30}, 0.25f},   // clipped, three tiles
        {{600, 0, 50, 610}, 0.75f},      // the whole inside part of the edge column
        {{0, 0, 300, 300}, 0.0f},        // tile 0 back to the fill: released
        {{300, 300, 300, 300}, 0.125f},  // tile 4 constant
    };
    for (const auto& [r, v] : fills) {
        m.fillRoi(r, v);
        d.fill(r, v);
        ASSERT_TRUE(sameAs(m, d)) << r.x << "," << r.y;
    }
    EXPECT_FALSE(m.tile(0));
    EXPECT_TRUE(m.tile(4)->isFilled(0.125f));
    EXPECT_TRUE(m.tile(8)->isFilled(0.75f));  // edge tile, padding filled too
    dab(m, &d, 100, 450, 40);
    const auto zeros = [&] { return uint64_t(std::count(d.v.begin(), d.v.end(), 0.0f)); };
    EXPECT_EQ(m.zeroPixelsCount(), zeros());
    m.invert();
    for (float& v : d.v) v = 1.0f - v;
    EXPECT_TRUE(sameAs(m, d));
    test::onOneThread([&] { m.invert(); });  // and back, on one thread
    for (float& v : d.v) v = 1.0f - v;
    EXPECT_TRUE(sameAs(m, d));
    m.prepare(kNoRegion);
    EXPECT_EQ(m.zeroPixelsCount(), zeros());
}

// ---------------------------------------------------------------- whole-image form

TEST_F(TiledMask, PrepareEditStore) {
    TiledMaskImage m(_Size<int>(650, 400), 0.0f);
    Dense d(650, 400, 0.0f);
    dab(m, &d, 100, 100, 30);
    m.prepare(_Rect<int>(280, 280, 60, 60));
    auto whole = m.maskImage();
    ASSERT_TRUE(m.isPrepared() && whole && whole->size() == m.size());
    EXPECT_TRUE(sameAs(m, d));
    whole->fillRect(0.5f, _Rect<int>(310, 310, 20, 20));  // through the image
    d.fill(_Rect<int>(310, 310, 20, 20), 0.5f);
    m.setValue(1.0f, 600, 10);  // outside the region, through the object
    d.at(600, 10) = 1.0f;
    m.fillRoi(_Rect<int>(70, 70, 60, 60), 0.0f);  // erases the dab
    d.fill(_Rect<int>(70, 70, 60, 60), 0.0f);
    EXPECT_TRUE(sameAs(m, d));
    m.store();
    EXPECT_FALSE(m.isPrepared());
    EXPECT_TRUE(sameAs(m, d));
    EXPECT_TRUE(m.presentTileCount() == 2 && m.tile(2) && m.tile(4));  // tile 0 constant again: released
    whole.reset();
    // A rendition at another size is the dense mask resized, and does not prepare.
    auto expected = MaskImage(d.v.data(), _Size<int>(650, 400)).resize(_Size<int>(80, 62), kNoRegion, true);
    auto got = m.maskImage(_Size<int>(80, 62));
    ASSERT_TRUE(got && expected);
    EXPECT_EQ(std::memcmp(got->data(), expected->data(), expected->byteCount()), 0);
    EXPECT_FALSE(m.isPrepared());
}

// ---------------------------------------------------------------- walks and copies

TEST_F(TiledMask, ProcessTilesAndTheIteratorWalkInOrder) {
    TiledMaskImage m(_Size<int>(700, 650), 0.0f);
    const std::pair<_Rect<int>, std::vector<std::pair<int, _Rect<int>>>> cases[] = {
        {{250, 280, 100, 40},
         {{0, {250, 280, 50, 20}}, {1, {300, 280, 50, 20}}, {3, {250, 300, 50, 20}}, {4, {300, 300, 50, 20}}}},
        {{800, 0, 10, 10}, {}},
        {{690, 640, 100, 100}, {{8, {690, 640, 10, 10}}}},
    };
    for (const auto& [rect, expected] : cases) {
        std::vector<std::pair<int, _Rect<int>>> seen;
        m.processTiles(rect, [&](int i, const _Rect<int>& part) { seen.emplace_back(i, part); });
        EXPECT_EQ(seen, expected);
    }
    TiledMaskImage w(_Size<int>(610, 7), 0.1f);
    Dense d(610, 7, 0.1f);
    dab(w, &d, 305, 3, 4);
    for (bool prepared : {false, true}) {
        if (prepared) w.prepare(kNoRegion);
        std::vector<float> walked;
        for (auto it = w.begin(); it != w.end(); ++it) walked.push_back(*it);
        EXPECT_EQ(walked, d.v) << prepared;
        auto it = w.begin();
        it += 3 * 610 + 305;
        EXPECT_TRUE(*it == d.v[3 * 610 + 305] && TiledMaskImage::Iterator(&w, 3 * 610 + 305) == it);
    }
}

TEST_F(TiledMask, CopiesShareTilesUntilWritten) {
    TiledMaskImage a(_Size<int>(600, 300), 0.0f);
    dab(a, nullptr, 150, 150, 30);
    const std::size_t bytesBefore = MemoryManager::instance().liveBytes();
    auto b = a.copy();
    EXPECT_EQ(MemoryManager::instance().liveBytes(), bytesBefore);  // nothing copied yet
    b->invert();
    EXPECT_EQ(b->getValue(140, 150), 1.0f - a.getValue(140, 150));
    TiledMaskImage c(_Size<int>(1, 1), 0.0f);
    c = a;
    c.fillRoi(_Rect<int>(140, 140, 20, 20), 0.5f);
    auto held = a.tile(0);
    a.setValue(0.25f, 150, 150);
    EXPECT_EQ(std::tuple(held->at(150, 150), c.getValue(150, 150), a.getValue(150, 150)),
              std::tuple(1.0f, 0.5f, 0.25f));  // a tile reference and a copy are snapshots
}

// ---------------------------------------------------------------- streams

// Exact without compression; with it, values k/255 exact and arbitrary values (in the
// prepared whole image) within two byte planes. Encoding is the same on one thread.
TEST_F(TiledMask, EncodeDecodeRestoresEveryPixel) {
    TiledMaskImage m(_Size<int>(640, 310), 0.0f);
    Dense d(640, 310, 0.0f);
    dab(m, &d, 300, 300, 40);
    m.fillRoi(_Rect<int>(620, 0, 20, 310), 1.0f);
    d.fill(_Rect<int>(620, 0, 20, 310), 1.0f);
    for (bool compressed : {true, false}) {
        TiledMaskImage back = decoded(encoded(m, compressed));
        EXPECT_TRUE(sameAs(back, d)) << compressed;
        for (int i = 0; i < m.tileCount(); ++i) EXPECT_EQ(bool(back.tile(i)), bool(m.tile(i))) << i;
        EXPECT_FALSE(back.isPrepared());
    }
    const auto noise = test::noise(50 * 50, 31);
    for (int y = 0; y < 50; ++y)
        for (int x = 0; x < 50; ++x) m.setValue(d.at(590 + x, 200 + y) = noise[y * 50 + x], 590 + x, 200 + y);
    m.prepare(_Rect<int>(0, 0, 10, 10));
    for (bool compressed : {false, true}) {
        TiledMaskImage back = decoded(encoded(m, compressed));
        EXPECT_TRUE(back.isPrepared());
        EXPECT_TRUE(sameAs(back, d, compressed ? kTwoPlaneTolerance : 0.0f)) << compressed;
        back.store();
        EXPECT_TRUE(sameAs(back, d, compressed ? kTwoPlaneTolerance : 0.0f)) << compressed;
    }
    Bytes one;
    test::onOneThread([&] { one = encoded(m, true); });
    EXPECT_EQ(one, encoded(m, true));
}

// A hand-made version-1 stream: no compressed flag, mask blocks (tracked or legacy), no
// whole image.
TEST_F(TiledMask, DecodesVersion1) {
    MaskImage tile(_Size<int>(4, 4), 0.0f);
    for (int i = 0; i < 16; ++i) tile.data()[i] = float(i) / 15.0f;
    for (bool legacy : {false, true}) {
        Bytes block;
        if (legacy) {
            const int side[2] = {4, 4};
            ImageCompressorLosslessZlib::compressRawData(
                std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(tile.data()), tile.byteCount()), block, 6);
            block.insert(block.begin(), reinterpret_cast<const uint8_t*>(side), reinterpret_cast<const uint8_t*>(side + 2));
        } else {
            ImageCompressorProxy::compressMask(tile, block);
        }
        Encoder e;
        encodeHeader(e, 1, false, {5, 3, 4, 4, 2, 1}, 0.5f);
        for (int present : {0, 1}) e.encodeUint8(present);
        e.encodeUint64(block.size());
        e.encodeData(block.data(), block.size());
        TiledMaskImage m = decoded(e.take());
        EXPECT_EQ(std::pair(m.size(), m.tileSize()), std::pair(_Size<int>(5, 3), _Size<int>(4, 4)));
        EXPECT_EQ(m.getValue(0, 0), 0.5f);
        EXPECT_NEAR(m.getValue(4, 2), tile.at(0, 2), legacy ? 0.0f : kTwoPlaneTolerance);
        EXPECT_FALSE(m.isPrepared());
    }
}

// An unknown version gives the default state; a hostile header (60000 x 60000 in 2 x 2
// tiles) throws before allocating anything (see the fixture) and leaves the target as it
// was. A null encoder is logged.
TEST_F(TiledMask, HostileStreams) {
    const TiledMaskImage unknown = decoded(Bytes{3, 0, 0, 0, 1, 2, 3});
    EXPECT_EQ(std::pair(unknown.size(), unknown.tileCount()), std::pair(_Size<int>(0, 0), 0));
    auto e = std::make_shared<Encoder>();
    encodeHeader(*e, 2, true, {60000, 60000, 2, 2, 30000, 30000}, 0.0f);
    for (int i = 0; i < 8; ++i) e->encodeUint8(0);
    auto d = std::make_shared<Decoder>(e->take());
    int version = 0;
    ASSERT_TRUE(d->decodeInt(version));
    TiledMaskImage target(_Size<int>(3, 3), 0.5f);
    EXPECT_THROW(target.decode(d), DecodeError);
    EXPECT_EQ(std::pair(target.size(), target.getValue(1, 1)), std::pair(_Size<int>(3, 3), 0.5f));
    test::LogCapture log;
    target.encode(nullptr, true);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"void __cdecl zorl::TiledMaskImage::encode(const class "
                                                    "std::shared_ptr<class zorl::Encoder> &,bool)const: encoder is null"});
}

}  // namespace
}  // namespace zorl
