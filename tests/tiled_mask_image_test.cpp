#include <imageprocessing/tiled_mask_image.h>

#include <imageprocessing/compression.h>

#include <cmath>
#include <cstring>
#include <set>

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
    for (int y = cy - radius; y <= cy + radius; ++y)
        for (int x = cx - radius; x <= cx + radius; ++x) {
            if (x < 0 || y < 0 || x >= m.width() || y >= m.height()) continue;
            const double r = std::hypot(x - cx, y - cy) / radius;
            if (r > 1.0) continue;
            const float v = float(int((1.0 - r) * 255.0)) / 255.0f;
            m.setValue(v, x, y);
            if (d) d->at(x, y) = v;
        }
}

std::shared_ptr<Decoder> decoderOf(const std::shared_ptr<Encoder>& e) { return std::make_shared<Decoder>(e->data()); }

// ---------------------------------------------------------------- geometry and pixels

TEST(TiledMaskImage, GeometryOf301x300) {
    TiledMaskImage m(_Size<int>(301, 300), 0.0f);
    EXPECT_EQ(m.tilesX(), 2);
    EXPECT_EQ(m.tilesY(), 1);
    EXPECT_EQ(m.tileCount(), 2);
    EXPECT_EQ(m.tileSize(), _Size<int>(300, 300));
    EXPECT_EQ(m.tileIndex(300, 0), 1);
    EXPECT_EQ(m.getTileRect(1), _Rect<int>(300, 0, 1, 300));
    EXPECT_EQ(m.getTileRect(2), kEmptyRect);
    EXPECT_EQ(m.rect(), _Rect<int>(0, 0, 301, 300));
    EXPECT_EQ(m.area(), 301 * 300);
    EXPECT_TRUE(m.name().empty());
    m.setValue(0.7f, 300, 0);
    ASSERT_TRUE(m.tile(1));
    EXPECT_EQ(m.tile(1)->size(), _Size<int>(300, 300));  // edge tiles are full size
    EXPECT_EQ(m.tile(1)->at(0, 0), 0.7f);
    EXPECT_FALSE(m.tile(0));
    EXPECT_EQ(m.getValue(300, 0), 0.7f);
    EXPECT_EQ(m[300], 0.7f);
    EXPECT_EQ(m[301 * 5 + 2], 0.0f);
}

TEST(TiledMaskImage, TileCountsRoundUp) {
    const struct {
        int w, h, tx, ty;
    } cases[] = {{0, 0, 0, 0}, {1, 1, 1, 1}, {300, 300, 1, 1}, {600, 601, 2, 3}, {-5, 10, 0, 1}};
    for (const auto& c : cases) {
        TiledMaskImage m(_Size<int>(c.w, c.h), 0.0f);
        EXPECT_EQ(m.tilesX(), c.tx) << c.w;
        EXPECT_EQ(m.tilesY(), c.ty) << c.h;
    }
}

TEST(TiledMaskImage, FreshMaskReadsFillAndEncodesAllFlagsZero) {
    TiledMaskImage m(_Size<int>(301, 300), 0.25f);
    for (auto [x, y] : {std::pair{0, 0}, {300, 299}, {150, 7}}) EXPECT_EQ(m.getValue(x, y), 0.25f);
    for (bool compressed : {false, true}) {
        auto e = std::make_shared<Encoder>();
        m.encode(e, compressed);
        Encoder expected;
        expected.encodeInt(2);
        expected.encodeUint8(compressed);
        expected.encodeInt(301);
        expected.encodeInt(300);
        expected.encodeFloat(0.25f);
        expected.encodeInt(300);
        expected.encodeInt(300);
        expected.encodeInt(2);
        expected.encodeInt(1);
        expected.encodeUint8(0);
        expected.encodeUint8(0);
        expected.encodeUint8(0);
        EXPECT_EQ(e->data(), expected.data());
    }
}

TEST(TiledMaskImage, WritingTheFillValueCreatesNothing) {
    TiledMaskImage m(_Size<int>(700, 700), 0.5f);
    m.setValue(0.5f, 10, 10);
    m.fillRoi(_Rect<int>(5, 5, 20, 20), 0.5f);
    EXPECT_EQ(m.presentTileCount(), 0u);
}

TEST(TiledMaskImage, BrushDabOnAHundredMegapixelsHoldsAtMostFourTiles) {
    MemoryBalance balance;
    {
        TiledMaskImage m(_Size<int>(10000, 10000), 0.0f);
        dab(m, nullptr, 5990, 2990, 25);  // straddles tile corners at (6000, 3000)
        EXPECT_EQ(m.presentTileCount(), 4u);
        EXPECT_EQ(m.getValue(5990, 2990), 1.0f);
        EXPECT_LE(MemoryManager::instance().liveBytes(), 4u * 300 * 300 * sizeof(float) + (1u << 16));
    }
    EXPECT_TRUE(balance.balanced());
}

// ---------------------------------------------------------------- fills

TEST(TiledMaskImage, FillRoiMatchesADenseReference) {
    MemoryBalance balance;
    {
        const int w = 650, h = 610;
        TiledMaskImage m(_Size<int>(w, h), 0.0f);
        Dense d(w, h, 0.0f);
        const struct {
            _Rect<int> r;
            float v;
        } fills[] = {
            {{10, 10, 50, 40}, 0.5f},          // inside tile 0
            {{290, 290, 20, 20}, 1.0f},        // four tiles
            {{-20, 500, 2000, 30}, 0.25f},     // clipped, three tiles
            {{600, 0, 50, 610}, 0.75f},        // the whole inside part of the edge column
            {{0, 0, 300, 300}, 0.0f},          // tile 0 back to the fill: released
            {{300, 300, 300, 300}, 0.125f},    // tile 4 constant
        };
        for (const auto& f : fills) {
            m.fillRoi(f.r, f.v);
            d.fill(f.r, f.v);
            ASSERT_TRUE(sameAs(m, d)) << f.r.x << "," << f.r.y;
        }
        EXPECT_FALSE(m.tile(0));                          // released
        ASSERT_TRUE(m.tile(4));
        EXPECT_TRUE(m.tile(4)->isFilled(0.125f));
        ASSERT_TRUE(m.tile(8));
        EXPECT_TRUE(m.tile(8)->isFilled(0.75f));           // edge tile, padding filled too
        m.fillRoi(kNoRegion, 0.3f);                      // the empty rectangle is the whole mask
        EXPECT_EQ(m.presentTileCount(), 0u);
        EXPECT_EQ(m.fillValue(), 0.3f);
    }
    EXPECT_TRUE(balance.balanced());
}

TEST(TiledMaskImage, SetFilledDropsTilesAndMakesEveryPixelOne) {
    MemoryBalance balance;
    {
        TiledMaskImage m(_Size<int>(620, 310), 0.0f);
        dab(m, nullptr, 300, 300, 20);
        ASSERT_GT(m.presentTileCount(), 0u);
        m.setFilled();
        EXPECT_EQ(m.presentTileCount(), 0u);
        EXPECT_TRUE(sameAs(m, Dense(620, 310, 1.0f)));
        m.setEmpty();
        EXPECT_EQ(m.fillValue(), 0.0f);
        m.setFillWith(0.4f);
        EXPECT_EQ(m.getValue(619, 309), 0.4f);
    }
    EXPECT_TRUE(balance.balanced());
}

TEST(TiledMaskImage, InvertConstantAndPainted) {
    TiledMaskImage c(_Size<int>(400, 400), 0.25f);
    c.invert();
    EXPECT_EQ(c.fillValue(), 0.75f);
    EXPECT_EQ(c.presentTileCount(), 0u);

    TiledMaskImage m(_Size<int>(400, 350), 0.0f);
    Dense d(400, 350, 0.0f);
    dab(m, &d, 310, 200, 30);
    m.invert();
    for (float& v : d.v) v = 1.0f - v;
    EXPECT_TRUE(sameAs(m, d));
}

// ---------------------------------------------------------------- queries

TEST(TiledMaskImage, IsEmptyLooksAtTilesOnly) {
    TiledMaskImage m(_Size<int>(500, 500), 1.0f);
    EXPECT_TRUE(m.isEmpty());
    EXPECT_TRUE(m.isFilled(1.0f));
    EXPECT_TRUE(m.isFilled(0.3f));  // no tiles: nothing contradicts
    m.setValue(0.0f, 10, 10);
    EXPECT_FALSE(m.isEmpty());      // the tile holds 1.0 around the pixel
    m.fillRoi(_Rect<int>(0, 0, 300, 300), 0.0f);
    EXPECT_TRUE(m.isEmpty());

    // An edge tile whose inside part holds 1.0 is filled with 1.0, whatever its padding.
    TiledMaskImage e(_Size<int>(310, 10), 0.0f);
    e.fillRoi(_Rect<int>(0, 0, 300, 10), 1.0f);
    for (int y = 0; y < 10; ++y)
        for (int x = 300; x < 310; ++x) e.setValue(1.0f, x, y);
    EXPECT_TRUE(e.isFilled(1.0f));
}

TEST(TiledMaskImage, ZeroPixelsCountMatchesReference) {
    const struct {
        float fill;
    } cases[] = {{0.0f}, {0.5f}};
    for (const auto& c : cases) {
        TiledMaskImage m(_Size<int>(610, 330), c.fill);
        Dense d(610, 330, c.fill);
        dab(m, &d, 605, 300, 40);
        m.fillRoi(_Rect<int>(0, 0, 20, 20), 0.0f);
        d.fill(_Rect<int>(0, 0, 20, 20), 0.0f);
        const uint64_t expected = std::count(d.v.begin(), d.v.end(), 0.0f);
        EXPECT_EQ(m.zeroPixelsCount(), expected) << c.fill;
        m.prepare(kNoRegion);
        EXPECT_EQ(m.zeroPixelsCount(), expected) << c.fill;
    }
}

// ---------------------------------------------------------------- whole-image form

TEST(TiledMaskImage, PrepareEditStore) {
    MemoryBalance balance;
    {
        TiledMaskImage m(_Size<int>(650, 400), 0.0f);
        Dense d(650, 400, 0.0f);
        dab(m, &d, 100, 100, 30);
        m.prepare(_Rect<int>(280, 280, 60, 60));
        ASSERT_TRUE(m.isPrepared());
        auto whole = m.maskImage();
        ASSERT_TRUE(whole);
        EXPECT_EQ(whole->size(), m.size());
        EXPECT_TRUE(sameAs(m, d));
        // Edits inside the prepared region, through the image and through the mask.
        whole->fillRect(0.5f, _Rect<int>(310, 310, 20, 20));
        d.fill(_Rect<int>(310, 310, 20, 20), 0.5f);
        m.setValue(1.0f, 600, 10);  // outside the region, through the object: tracked
        d.at(600, 10) = 1.0f;
        m.fillRoi(_Rect<int>(70, 70, 60, 60), 0.0f);  // erases the dab
        d.fill(_Rect<int>(70, 70, 60, 60), 0.0f);
        EXPECT_TRUE(sameAs(m, d));
        m.store();
        EXPECT_FALSE(m.isPrepared());
        EXPECT_TRUE(sameAs(m, d));
        EXPECT_FALSE(m.tile(0));  // constant again: released
        std::set<int> present;
        for (int i = 0; i < m.tileCount(); ++i)
            if (m.tile(i)) present.insert(i);
        EXPECT_EQ(present, (std::set<int>{2, 4}));
        whole.reset();
    }
    EXPECT_TRUE(balance.balanced());
}

TEST(TiledMaskImage, MaskImageResizesThroughMaskImage) {
    TiledMaskImage m(_Size<int>(320, 310), 0.2f);
    Dense d(320, 310, 0.2f);
    dab(m, &d, 300, 290, 25);
    MaskImage flat(d.v.data(), _Size<int>(320, 310));
    auto expected = flat.resize(_Size<int>(80, 62), kNoRegion, true);
    auto got = m.maskImage(_Size<int>(80, 62));
    ASSERT_TRUE(got && expected);
    EXPECT_EQ(std::vector<float>(got->data(), got->data() + got->pixelCount()),
              std::vector<float>(expected->data(), expected->data() + expected->pixelCount()));
    EXPECT_FALSE(m.isPrepared());  // a rendition does not prepare
    EXPECT_EQ(TiledMaskImage(_Size<int>(0, 0), 0.0f).maskImage(), nullptr);
}

// ---------------------------------------------------------------- walks

TEST(TiledMaskImage, ProcessTilesVisitsTouchedTilesInOrder) {
    TiledMaskImage m(_Size<int>(700, 650), 0.0f);
    std::vector<std::pair<int, _Rect<int>>> seen;
    m.processTiles(_Rect<int>(250, 280, 100, 40), [&](int i, const _Rect<int>& part) { seen.emplace_back(i, part); });
    const std::vector<std::pair<int, _Rect<int>>> expected = {{0, {250, 280, 50, 20}},
                                                              {1, {300, 280, 50, 20}},
                                                              {3, {250, 300, 50, 20}},
                                                              {4, {300, 300, 50, 20}}};
    EXPECT_EQ(seen, expected);
    int all = 0;
    m.processTiles(kNoRegion, [&](int, const _Rect<int>&) { ++all; });
    EXPECT_EQ(all, 9);
    int none = 0;
    m.processTiles(_Rect<int>(800, 0, 10, 10), [&](int, const _Rect<int>&) { ++none; });
    EXPECT_EQ(none, 0);
}

TEST(TiledMaskImage, IteratorWalksRowMajor) {
    TiledMaskImage m(_Size<int>(610, 7), 0.1f);
    Dense d(610, 7, 0.1f);
    dab(m, &d, 305, 3, 4);
    for (bool prepared : {false, true}) {
        if (prepared) m.prepare(kNoRegion);
        std::vector<float> walked;
        for (auto it = m.begin(); it != m.end(); ++it) walked.push_back(*it);
        EXPECT_EQ(walked, d.v) << prepared;
        auto it = m.begin();
        it += 609;
        EXPECT_EQ(*it, d.v[609]);
        auto old = it++;
        EXPECT_EQ(it - old, 1);
        EXPECT_EQ(*it, d.v[610]);
        it.setIndex(3 * 610 + 305);
        EXPECT_EQ(*it, d.v[3 * 610 + 305]);
        EXPECT_EQ(m.end() - m.begin(), m.area());
        auto five = m.begin();
        five += 5;
        EXPECT_TRUE(TiledMaskImage::Iterator(&m, 5) == five);
        EXPECT_TRUE(five != m.begin());
    }
}

// ---------------------------------------------------------------- copies

TEST(TiledMaskImage, CopiesShareTilesUntilWritten) {
    MemoryBalance balance;
    {
        TiledMaskImage a(_Size<int>(600, 300), 0.0f);
        dab(a, nullptr, 150, 150, 30);
        a.setName("brush");
        const std::size_t bytesBefore = MemoryManager::instance().liveBytes();
        auto b = a.copy();
        EXPECT_EQ(MemoryManager::instance().liveBytes(), bytesBefore);  // nothing copied yet
        EXPECT_EQ(b->name(), "brush");
        b->setValue(0.0f, 150, 150);
        EXPECT_EQ(a.getValue(150, 150), 1.0f);
        EXPECT_EQ(b->getValue(150, 150), 0.0f);
        b->invert();
        EXPECT_EQ(a.getValue(150, 150), 1.0f);
        TiledMaskImage c(_Size<int>(1, 1), 0.0f);
        c = a;
        c.fillRoi(_Rect<int>(140, 140, 20, 20), 0.5f);
        EXPECT_EQ(a.getValue(150, 150), 1.0f);
        EXPECT_EQ(c.getValue(150, 150), 0.5f);
        auto held = a.tile(0);
        a.setValue(0.25f, 150, 150);
        EXPECT_EQ(held->at(150, 150), 1.0f);  // a caller's tile reference is a snapshot
    }
    EXPECT_TRUE(balance.balanced());
}

// ---------------------------------------------------------------- streams

TEST(TiledMaskImage, EncodeDecodeRestoresEveryPixel) {
    MemoryBalance balance;
    {
        TiledMaskImage m(_Size<int>(640, 310), 0.0f);
        Dense d(640, 310, 0.0f);
        dab(m, &d, 300, 300, 40);
        m.fillRoi(_Rect<int>(620, 0, 20, 310), 1.0f);
        d.fill(_Rect<int>(620, 0, 20, 310), 1.0f);
        for (bool compressed : {true, false}) {
            auto e = std::make_shared<Encoder>();
            m.encode(e, compressed);
            TiledMaskImage back(decoderOf(e));
            EXPECT_TRUE(sameAs(back, d)) << compressed;
            EXPECT_EQ(back.presentTileCount(), m.presentTileCount());
            EXPECT_FALSE(back.isPrepared());
        }
        // Arbitrary values: exact without compression, within two byte planes with.
        const auto noise = test::noise(50 * 50, 31);
        for (int y = 0; y < 50; ++y)
            for (int x = 0; x < 50; ++x) {
                m.setValue(noise[y * 50 + x], 590 + x, 200 + y);
                d.at(590 + x, 200 + y) = noise[y * 50 + x];
            }
        m.prepare(_Rect<int>(0, 0, 10, 10));
        for (bool compressed : {false, true}) {
            auto e = std::make_shared<Encoder>();
            m.encode(e, compressed);
            TiledMaskImage back(decoderOf(e));
            EXPECT_TRUE(back.isPrepared());
            EXPECT_TRUE(sameAs(back, d, compressed ? kTwoPlaneTolerance : 0.0f)) << compressed;
            back.store();
            EXPECT_TRUE(sameAs(back, d, compressed ? kTwoPlaneTolerance : 0.0f)) << compressed;
        }
    }
    EXPECT_TRUE(balance.balanced());
}

TEST(TiledMaskImage, EncodingIsTheSameOnOneThread) {
    TiledMaskImage m(_Size<int>(900, 620), 0.0f);
    for (int i = 0; i < 6; ++i) dab(m, nullptr, 100 + 150 * i, 80 + 90 * i, 35);
    auto many = std::make_shared<Encoder>();
    m.encode(many, true);
    auto one = std::make_shared<Encoder>();
    test::onOneThread([&] { m.encode(one, true); });
    EXPECT_EQ(one->data(), many->data());
    TiledMaskImage a(decoderOf(many)), b(_Size<int>(1, 1), 0.0f);
    test::onOneThread([&] { b = TiledMaskImage(decoderOf(one)); });
    a.invert();
    test::onOneThread([&] { b.invert(); });
    auto ea = std::make_shared<Encoder>(), eb = std::make_shared<Encoder>();
    a.encode(ea, false);
    b.encode(eb, false);
    EXPECT_EQ(ea->data(), eb->data());
}

// A hand-made version-1 stream: no compressed flag, mask blocks, no whole image.
Bytes version1Stream(const MaskImage& tile, bool legacy) {
    Encoder e;
    e.encodeInt(1);
    e.encodeInt(5);
    e.encodeInt(3);
    e.encodeFloat(0.5f);
    e.encodeInt(4);
    e.encodeInt(4);
    e.encodeInt(2);
    e.encodeInt(1);
    e.encodeUint8(0);
    e.encodeUint8(1);
    Bytes block;
    if (legacy) {
        block.resize(8);
        const int side = 4;
        std::memcpy(block.data(), &side, 4);
        std::memcpy(block.data() + 4, &side, 4);
        Bytes packed;
        ImageCompressorLosslessZlib::compressRawData(
            std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(tile.data()), tile.byteCount()), packed, 6);
        block.insert(block.end(), packed.begin(), packed.end());
    } else {
        ImageCompressorProxy::compressMask(tile, block);
    }
    e.encodeUint64(block.size());
    e.encodeData(block.data(), block.size());
    return e.take();
}

TEST(TiledMaskImage, DecodesVersion1) {
    MaskImage tile(_Size<int>(4, 4), 0.0f);
    for (int i = 0; i < 16; ++i) tile.data()[i] = float(i) / 15.0f;
    for (bool legacy : {false, true}) {
        TiledMaskImage m(std::make_shared<Decoder>(version1Stream(tile, legacy)));
        EXPECT_EQ(m.size(), _Size<int>(5, 3));
        EXPECT_EQ(m.tileSize(), _Size<int>(4, 4));
        EXPECT_EQ(m.getValue(0, 0), 0.5f);
        EXPECT_NEAR(m.getValue(4, 2), tile.at(0, 2), legacy ? 0.0f : kTwoPlaneTolerance);
        EXPECT_FALSE(m.isPrepared());
    }
}

TEST(TiledMaskImage, UnknownOrMissingVersionGivesTheDefaultState) {
    for (const Bytes& bytes : {Bytes{}, Bytes{3, 0, 0, 0, 1, 2, 3}, Bytes{0, 0}}) {
        TiledMaskImage m(std::make_shared<Decoder>(bytes));
        EXPECT_EQ(m.size(), _Size<int>(0, 0));
        EXPECT_EQ(m.tileCount(), 0);
        EXPECT_FALSE(m.isPrepared());
    }
    TiledMaskImage n(std::shared_ptr<Decoder>{});
    EXPECT_EQ(n.area(), 0);
}

TEST(TiledMaskImage, DamagedStreamsThrowAndLeaveTheObjectUnchanged) {
    TiledMaskImage m(_Size<int>(320, 310), 0.0f);
    dab(m, nullptr, 300, 300, 15);
    for (bool compressed : {true, false}) {
        auto e = std::make_shared<Encoder>();
        m.encode(e, compressed);
        const Bytes good = e->data();
        // Every truncation (sampled) throws a documented exception.
        for (std::size_t len = 0; len < good.size(); len += 1 + good.size() / 97) {
            MemoryBalance balance;
            TiledMaskImage target(_Size<int>(3, 3), 0.5f);
            auto d = std::make_shared<Decoder>(good.data(), len);
            int version = 0;
            if (!d->decodeInt(version)) continue;
            try {
                target.decode(d);
                ADD_FAILURE() << "no exception at length " << len;
            } catch (const DecodeError&) {
            } catch (const ImageCompressorLosslessZlib::CompressorException&) {
            }
            EXPECT_EQ(target.size(), _Size<int>(3, 3));
            EXPECT_EQ(target.getValue(1, 1), 0.5f);
            EXPECT_TRUE(balance.balanced());
        }
    }
    auto patchedHeader = [](int w, int h, int tw, int th, int tx, int ty) {
        Encoder e;
        e.encodeInt(2);
        e.encodeUint8(1);
        e.encodeInt(w);
        e.encodeInt(h);
        e.encodeFloat(0.0f);
        e.encodeInt(tw);
        e.encodeInt(th);
        e.encodeInt(tx);
        e.encodeInt(ty);
        for (int i = 0; i < 8; ++i) e.encodeUint8(0);
        return e.take();
    };
    const struct {
        const char* name;
        Bytes bytes;
    } bad[] = {
        {"negative width", patchedHeader(-1, 5, 4, 4, 0, 2)},
        {"tile width 0", patchedHeader(5, 5, 0, 4, 2, 2)},
        {"tile side 5000", patchedHeader(5, 5, 5000, 4, 1, 2)},
        {"tile counts", patchedHeader(5, 5, 4, 4, 3, 2)},
        {"more tiles than bytes", patchedHeader(2000000000, 2000000000, 1, 1, 2000000000, 2000000000)},
        {"60000 x 60000 in tiny tiles", patchedHeader(60000, 60000, 2, 2, 30000, 30000)},
    };
    for (const auto& c : bad) {
        MemoryBalance balance;
        EXPECT_THROW(TiledMaskImage(std::make_shared<Decoder>(c.bytes)), DecodeError) << c.name;
        EXPECT_TRUE(balance.balanced());
    }
}

TEST(TiledMaskImage, NullEncoderIsLogged) {
    test::LogCapture log;
    TiledMaskImage(_Size<int>(2, 2), 0.0f).encode(nullptr, true);
    ASSERT_EQ(log.count(), 1u);
    EXPECT_EQ(log.lines()[0],
              "void __cdecl zorl::TiledMaskImage::encode(const class std::shared_ptr<class zorl::Encoder> &,bool)const: "
              "encoder is null");
}

}  // namespace
}  // namespace zorl
