#pragma once
// Internal: the pixel work shared by the tiled RGB image stores. Each store offers the
// tile primitives tileAt / touchTile / releaseTile / resetTiles; everything else is
// written once here and instantiated per store (static dispatch: no virtual call per
// tile or pixel).
//
// Parallel writes: every write first walks the tiles it touches in one serial pass
// (materialising absent tiles and setting modified flags), then copies or fills the
// parts in parallel, one task per tile part, so no two tasks ever share a tile.

#include <algorithm>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include <imageprocessing/tiled_image_data_stores.h>

#include "core/error_log.h"
#include "core/parallel.h"

namespace zorl::detail {

using TilePixel = PixelRGB<float>;
using TileImage = _ImageData<PixelRGB<float>>;

template <class Store>
struct TiledStoreOps {
    static constexpr int kSide = Store::kTileSide;

    static std::string className() {
        return std::is_same_v<Store, KelTiledImageData> ? "zorl::KelTiledImageData" : "zorl::BarcTiledImageData";
    }
    // "<ret> __cdecl zorl::<Store>::<method>(<args>)"
    static std::string signature(const char* ret, const char* method, const char* args) {
        std::string s = ret;
        if (!s.empty()) s += ' ';
        return s + "__cdecl " + className() + "::" + method + "(" + args + ")";
    }

    // The size a store is made with: a side out of 0 .. kMaxTiledImageSide is logged and
    // gives 0 x 0.
    static _Size<int> checkedSize(_Size<int> size) {
        if (size.width >= 0 && size.height >= 0 && size.width <= kMaxTiledImageSide &&
            size.height <= kMaxTiledImageSide)
            return size;
        const std::string name = std::is_same_v<Store, KelTiledImageData> ? "KelTiledImageData" : "BarcTiledImageData";
        logError(signature("", name.c_str(),
                           "struct zorl::_Size<int>,const struct zorl::PixelRGB<float> &,class "
                           "std::shared_ptr<class zorl::ColorProfile>"),
                 "Size out of range");
        return {0, 0};
    }

    static _Rect<int> tileRect(int tx, int ty) { return {tx * kSide, ty * kSide, kSide, kSide}; }

    // fn(tx, ty, part) for every tile that the non-empty rectangle r (inside the image)
    // touches, row by row; part is r's share of the tile, in image pixels.
    template <class F>
    static void forEachTile(const _Rect<int>& r, F&& fn) {
        const int tx0 = r.x / kSide, tx1 = (r.right() - 1) / kSide;
        const int ty0 = r.y / kSide, ty1 = (r.bottom() - 1) / kSide;
        for (int ty = ty0; ty <= ty1; ++ty)
            for (int tx = tx0; tx <= tx1; ++tx) fn(tx, ty, tileRect(tx, ty).intersection(r));
    }

    static std::size_t offsetInTile(int x, int y) {
        return static_cast<std::size_t>(y % kSide) * kSide + static_cast<std::size_t>(x % kSide);
    }

    static TilePixel getPixel(const Store& s, int x, int y) {
        if (!s.rect().contains(x, y)) return s.fillColor();
        const TileImage* t = s.tileAt(x / kSide, y / kSide);
        return t ? t->data()[offsetInTile(x, y)] : s.fillColor();
    }

    static void setPixel(Store& s, const TilePixel& v, int x, int y) {
        if (!s.rect().contains(x, y)) return;
        s.touchTile(x / kSide, y / kSide)->data()[offsetInTile(x, y)] = v;
    }

    // Copies part (image pixels) of one tile, or the fill colour for an absent tile, to
    // out at (ox, oy).
    static void readPart(const TileImage* tile, const TilePixel& fill, const _Rect<int>& part, TileImage& out, int ox,
                         int oy) {
        for (int j = 0; j < part.height; ++j) {
            TilePixel* dst = out.row(oy + j) + ox;
            if (tile)
                std::memcpy(dst, tile->data() + offsetInTile(part.x, part.y + j), sizeof(TilePixel) * part.width);
            else
                std::fill(dst, dst + part.width, fill);
        }
    }

    static TileImage::Ptr readRect(const Store& s, _Rect<int> r) {
        const _Rect<int> region = r == kNoRegion ? s.rect() : r.intersection(s.rect());
        if (region.isEmpty()) return nullptr;
        auto out = std::make_shared<TileImage>(region.size(), s.colorProfile());
        out->setLoadState(s.getLoadState());
        // One task per band of tile rows: each writes only its own rows of out.
        parallelFor(region.y / kSide, (region.bottom() - 1) / kSide + 1, [&](int b, int e) {
            for (int ty = b; ty < e; ++ty) {
                const _Rect<int> band = _Rect<int>{region.x, ty * kSide, region.width, kSide}.intersection(region);
                forEachTile(band, [&](int tx, int ty2, const _Rect<int>& part) {
                    readPart(s.tileAt(tx, ty2), s.fillColor(), part, *out, part.x - region.x, part.y - region.y);
                });
            }
        });
        return out;
    }

    struct WritePart {
        TileImage* tile;
        _Rect<int> part;  // image pixels
    };

    // Materialises the tiles r touches (serial), returning them with their parts.
    static std::vector<WritePart> touchTiles(Store& s, const _Rect<int>& r) {
        std::vector<WritePart> parts;
        forEachTile(r, [&](int tx, int ty, const _Rect<int>& part) { parts.push_back({s.touchTile(tx, ty), part}); });
        return parts;
    }

    static void writeRect(Store& s, const TileImage& src, _Rect<int> srcRect, _Point<int> at) {
        if (srcRect == kNoRegion) srcRect = src.rect();
        // Source pixel (sx, sy) of srcRect lands on (sx + dx, sy + dy).
        const int dx = at.x - srcRect.x, dy = at.y - srcRect.y;
        const _Rect<int> inSrc = srcRect.intersection(src.rect());
        const _Rect<int> target = _Rect<int>{inSrc.x + dx, inSrc.y + dy, inSrc.width, inSrc.height}.intersection(s.rect());
        if (inSrc.isEmpty() || target.isEmpty()) return;
        const std::vector<WritePart> parts = touchTiles(s, target);
        parallelFor(std::size_t(0), parts.size(), [&](std::size_t b, std::size_t e) {
            for (std::size_t i = b; i < e; ++i) {
                const _Rect<int>& p = parts[i].part;
                for (int j = 0; j < p.height; ++j)
                    std::memcpy(parts[i].tile->data() + offsetInTile(p.x, p.y + j), src.row(p.y + j - dy) + (p.x - dx),
                                sizeof(TilePixel) * p.width);
            }
        });
    }

    static void fillRoi(Store& s, _Rect<int> r, const TilePixel& value) {
        const _Rect<int> region = r == kNoRegion ? s.rect() : r.intersection(s.rect());
        if (region.isEmpty()) return;
        if (region == s.rect()) {
            s.resetTiles(value);
            return;
        }
        std::vector<WritePart> parts;
        forEachTile(region, [&](int tx, int ty, const _Rect<int>& part) {
            // A tile covered wholly with the fill colour is released instead of filled.
            if (value == s.fillColor() && part == tileRect(tx, ty).intersection(s.rect()))
                s.releaseTile(tx, ty);
            else
                parts.push_back({s.touchTile(tx, ty), part});
        });
        parallelFor(std::size_t(0), parts.size(), [&](std::size_t b, std::size_t e) {
            for (std::size_t i = b; i < e; ++i) {
                const _Rect<int>& p = parts[i].part;
                for (int j = 0; j < p.height; ++j) {
                    TilePixel* row = parts[i].tile->data() + offsetInTile(p.x, p.y + j);
                    std::fill(row, row + p.width, value);
                }
            }
        });
    }

    static std::shared_ptr<TileImage> newTile(const Store& s) {
        return std::make_shared<TileImage>(_Size<int>{kSide, kSide}, s.fillColor(), s.colorProfile());
    }

    // Bytes of one present tile: its pixels and its container.
    static constexpr uint64_t kTileBytes = uint64_t(kSide) * kSide * sizeof(TilePixel) + sizeof(TileImage);
};

}  // namespace zorl::detail
