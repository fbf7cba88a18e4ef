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
#include <cmath>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include <atomic>
#include <mutex>

#include <imageprocessing/blending.h>
#include <imageprocessing/compression.h>
#include <imageprocessing/tiled_image_data_stores.h>
#include <zorl/core/image_transform_settings.h>

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
        forEachTile(r, [&](int tx, int ty, const _Rect<int>& part) { parts.push_back({s.touchTile(tx, ty).get(), part}); });
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
                parts.push_back({s.touchTile(tx, ty).get(), part});
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

    // ---- blends --------------------------------------------------------------------

    // A shared pointer that does not own: hands a tile to blendImages without copying.
    template <class T>
    static std::shared_ptr<const T> borrow(const T* p) {
        return std::shared_ptr<const T>(std::shared_ptr<const T>(), p);
    }

    // Copies the part (image pixels) of a full-size mask into a tile-sized mask at the
    // part's place in the tile; the rest of the tile mask is left as it is.
    static void maskPart(const _ImageData<float>& mask, const _Rect<int>& part, _ImageData<float>& tileMask) {
        for (int j = 0; j < part.height; ++j)
            std::memcpy(tileMask.row(part.y % kSide + j) + part.x % kSide, mask.row(part.y + j) + part.x,
                        sizeof(float) * part.width);
    }

    static bool maskIsZero(const _ImageData<float>& mask, const _Rect<int>& part) {
        for (int y = part.y; y < part.bottom(); ++y)
            for (int x = part.x; x < part.right(); ++x)
                if (mask.at(x, y) != 0.0f) return false;
        return true;
    }

    static void blendWithTiledImageData(Store& s, const Store& layerIn, const std::shared_ptr<const _ImageData<float>>& mask,
                                        float opacity) {
        const std::string sig = signature("void", "blendWithTiledImageData",
                                          ("const class " + className() +
                                           " &,const class std::shared_ptr<class zorl::_ImageData<float> const > &,float")
                                              .c_str());
        if (!checkThat(layerIn.size() == s.size(), sig, "Images have different sizes")) return;
        if (mask && !checkThat(mask->size() == s.size(), sig, "Mask has wrong size!")) return;
        // Blending a store with itself: the layer must not change under the loop.
        std::unique_ptr<Store> selfCopy;
        if (&layerIn == &s) selfCopy = std::make_unique<Store>(layerIn);
        const Store& layer = selfCopy ? *selfCopy : layerIn;

        const TilePixel fill = s.fillColor(), layerFill = layer.fillColor();
        const bool fillsDiffer = !(fill == layerFill);
        const auto layerFillTile = std::make_shared<const TileImage>(_Size<int>{kSide, kSide}, layerFill, s.colorProfile());
        std::shared_ptr<_ImageData<float>> tileMask;
        if (mask) tileMask = std::make_shared<_ImageData<float>>(_Size<int>{kSide, kSide}, 0.0f, nullptr);

        const int nx = s.tilesX(), ny = s.tilesY();
        for (int ty = 0; ty < ny; ++ty)
            for (int tx = 0; tx < nx; ++tx) {
                const TileImage* layerTile = layer.tileAt(tx, ty);
                const _Rect<int> part = tileRect(tx, ty).intersection(s.rect());
                if (!layerTile && !s.tileAt(tx, ty)) {
                    // Both read as their fill colours: equal colours blend to themselves, and
                    // without a mask the fill colour itself changes below.
                    if (!fillsDiffer || !mask || maskIsZero(*mask, part)) continue;
                }
                std::shared_ptr<TileImage> base = s.touchTile(tx, ty);
                if (mask) maskPart(*mask, part, *tileMask);
                blendImages(layerTile ? borrow(layerTile) : layerFillTile, base, base, tileMask, opacity,
                            BlendModeType::Normal, kNoRegion);
            }
        if (!mask && fillsDiffer) {
            // The same expression as the Normal blend, so absent tiles read exactly what
            // the blend of the dense images gives.
            s.fill_ = {fill.r + (layerFill.r - fill.r) * opacity, fill.g + (layerFill.g - fill.g) * opacity,
                       fill.b + (layerFill.b - fill.b) * opacity};
            s.markAllModified();
        }
    }

    // Value of `image` for store pixel x (or y) of rp.rect: the resampling rule of
    // blendWithImageData (see the store header).
    struct Axis {
        int i0, i1;
        float f;
    };
    static std::vector<Axis> axisSamples(int from, int count, int rectStart, int rectLength, int imageLength,
                                         bool smooth) {
        std::vector<Axis> out(count);
        const float scale = static_cast<float>(imageLength) / static_cast<float>(rectLength);
        for (int k = 0; k < count; ++k) {
            const int d = from + k - rectStart;
            if (imageLength == rectLength) {
                out[k] = {d, d, 0.0f};
                continue;
            }
            const float u = (static_cast<float>(d) + 0.5f) * scale - 0.5f;
            if (!smooth) {
                const int i = std::clamp(static_cast<int>(std::floor(u + 0.5f)), 0, imageLength - 1);
                out[k] = {i, i, 0.0f};
                continue;
            }
            const float c = std::clamp(u, 0.0f, static_cast<float>(imageLength - 1));
            const int i0 = static_cast<int>(c);
            out[k] = {i0, std::min(i0 + 1, imageLength - 1), c - static_cast<float>(i0)};
        }
        return out;
    }

    // Fills part (image pixels) of a tile-sized raster from src by the axis samples.
    template <class P>
    static void samplePart(const _ImageData<P>& src, const std::vector<Axis>& xs, const std::vector<Axis>& ys,
                           const _Rect<int>& part, const _Rect<int>& region, _ImageData<P>& tile) {
        for (int y = part.y; y < part.bottom(); ++y) {
            const Axis& ay = ys[y - region.y];
            const P* r0 = src.row(ay.i0);
            const P* r1 = src.row(ay.i1);
            P* out = tile.row(y % kSide);
            for (int x = part.x; x < part.right(); ++x) {
                const Axis& ax = xs[x - region.x];
                out[x % kSide] = lerp2(r0[ax.i0], r0[ax.i1], r1[ax.i0], r1[ax.i1], ax.f, ay.f);
            }
        }
    }
    static float lerp2(float p00, float p10, float p01, float p11, float fx, float fy) {
        const float top = p00 + (p10 - p00) * fx, bottom = p01 + (p11 - p01) * fx;
        return top + (bottom - top) * fy;
    }
    static TilePixel lerp2(const TilePixel& p00, const TilePixel& p10, const TilePixel& p01, const TilePixel& p11,
                           float fx, float fy) {
        return {lerp2(p00.r, p10.r, p01.r, p11.r, fx, fy), lerp2(p00.g, p10.g, p01.g, p11.g, fx, fy),
                lerp2(p00.b, p10.b, p01.b, p11.b, fx, fy)};
    }

    static void blendWithImageData(Store& s, const std::shared_ptr<const TileImage>& image, const ResizeParameters& rp,
                                   const std::shared_ptr<const _ImageData<float>>& mask, float opacity) {
        const std::string sig = signature(
            "void", "blendWithImageData",
            "const class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > const > &,const struct "
            "zorl::ResizeParameters &,const class std::shared_ptr<class zorl::_ImageData<float> const > &,float");
        if (!checkNotNull(image, sig, "Image is null")) return;
        if (!checkThat(!rp.size.isEmpty() && !rp.rect.isEmpty() && image->size() == rp.size, sig,
                       "Image size differs from the resize parameters"))
            return;
        if (mask && !checkThat(mask->size() == image->size(), sig, "Mask has wrong size!")) return;
        const _Rect<int> region = rp.rect.intersection(s.rect());
        if (region.isEmpty()) return;

        const std::vector<Axis> xs =
            axisSamples(region.x, region.width, rp.rect.x, rp.rect.width, rp.size.width, rp.resizeFlag);
        const std::vector<Axis> ys =
            axisSamples(region.y, region.height, rp.rect.y, rp.rect.height, rp.size.height, rp.resizeFlag);
        const auto layer = std::make_shared<TileImage>(_Size<int>{kSide, kSide}, s.fillColor(), s.colorProfile());
        std::shared_ptr<_ImageData<float>> tileMask;
        if (mask) tileMask = std::make_shared<_ImageData<float>>(_Size<int>{kSide, kSide}, 0.0f, nullptr);
        forEachTile(region, [&](int tx, int ty, const _Rect<int>& part) {
            std::shared_ptr<TileImage> base = s.touchTile(tx, ty);
            samplePart(*image, xs, ys, part, region, *layer);
            if (mask) samplePart(*mask, xs, ys, part, region, *tileMask);
            const _Rect<int> local{part.x - tx * kSide, part.y - ty * kSide, part.width, part.height};
            blendImages(layer, base, base, tileMask, opacity, BlendModeType::Normal, local);
        });
    }

    // ---- serialisation ------------------------------------------------------------

    static constexpr int kFormatVersion = 1;
    static constexpr uint64_t kTilePayloadBytes = uint64_t(kSide) * kSide * sizeof(TilePixel);
    // Float tiles gain little from slower zlib levels; level 1 keeps saving fast.
    static constexpr int kTileZlibLevel = 1;
    static constexpr uint32_t kTileChannels = 3;

    static std::string decodeSignature() {
        return "class std::shared_ptr<class " + className() + "> __cdecl " + className() +
               "::decode(const class std::shared_ptr<class zorl::Decoder> &)";
    }

    // One tile as a tracked block: field 3 the pixel layout code (RgbF32), field 4 the
    // bytes per pixel, field 5 the profile code, field 6 the channel count.
    static std::vector<uint8_t> compressTile(const TileImage& tile, uint32_t profileCode) {
        std::vector<uint8_t> raw(kTilePayloadBytes), block;
        std::memcpy(raw.data(), tile.data(), kTilePayloadBytes);
        ImageCompressorLosslessZlib::compressEx(raw, block, kSide, kSide, to_imageDataTypeCode(ImageDataType::RgbF32),
                                                sizeof(TilePixel), profileCode, kTileChannels, kTileZlibLevel, 1, 0);
        return block;
    }

    // Compresses the listed tiles in parallel; blocks in list order.
    static std::vector<std::vector<uint8_t>> compressTiles(const std::vector<const TileImage*>& tiles,
                                                           uint32_t profileCode) {
        std::vector<std::vector<uint8_t>> blocks(tiles.size());
        parallelFor(std::size_t(0), tiles.size(), [&](std::size_t b, std::size_t e) {
            for (std::size_t i = b; i < e; ++i) blocks[i] = compressTile(*tiles[i], profileCode);
        });
        return blocks;
    }

    // The header fields every store writes first.
    static void encodeHeader(const Store& s, Encoder& e) {
        e.encodeInt(kFormatVersion);
        e.encodeInt(s.width());
        e.encodeInt(s.height());
        e.encodeFloat(s.fillColor().r);
        e.encodeFloat(s.fillColor().g);
        e.encodeFloat(s.fillColor().b);
    }

    // Reads the common header; null (with message set) on a fault.
    static std::unique_ptr<Store> decodeHeader(const std::shared_ptr<Decoder>& d, std::string& message) {
        int version = 0, w = 0, h = 0, side = 0;
        TilePixel fill{};
        if (!d->decodeInt(version)) return message = "Stream is truncated", nullptr;
        if (version != kFormatVersion) return message = "Unknown format version", nullptr;
        if (!d->decodeInt(w) || !d->decodeInt(h) || !d->decodeFloat(fill.r) || !d->decodeFloat(fill.g) ||
            !d->decodeFloat(fill.b))
            return message = "Stream is truncated", nullptr;
        if (w < 0 || h < 0 || w > kMaxTiledImageSide || h > kMaxTiledImageSide)
            return message = "Size out of range", nullptr;
        ColorProfilePtr profile = ColorProfileType::decode(d);
        if (!profile) return message = d->failed() ? "Stream is truncated" : "Unknown color profile", nullptr;
        if (!d->decodeInt(side)) return message = "Stream is truncated", nullptr;
        if (side != kSide) return message = "Tile size differs", nullptr;
        return std::make_unique<Store>(_Size<int>{w, h}, fill, std::move(profile));
    }

    // Reads one block (uint64 byte count, then the bytes); false with message on a fault.
    static bool readBlock(const std::shared_ptr<Decoder>& d, std::vector<uint8_t>& block, std::string& message) {
        uint64_t n = 0;
        if (!d->decodeUint64(n)) return message = "Stream is truncated", false;
        if (n < kTrackedHeaderBytes || n > d->remaining()) return message = "Tile block length out of range", false;
        block.resize(n);
        if (!d->decodeData(block.data(), n)) return message = "Stream is truncated", false;
        return true;
    }

    // Restores one tile; null with message when the header disagrees with a tile of this
    // store or the stream is corrupt.
    static std::shared_ptr<TileImage> decompressTile(const std::vector<uint8_t>& block, uint32_t profileCode,
                                                     const ColorProfilePtr& profile, std::string& message) {
        STrackVersionFormat track;
        SCompressedDataSignature signature;
        SCompressedImageFormat format;
        std::memcpy(&track, block.data(), sizeof track);
        std::memcpy(&signature, block.data() + sizeof track, sizeof signature);
        std::memcpy(&format, block.data() + sizeof track + sizeof signature, sizeof format);
        const bool headerOk = track.word0 == -1 && track.word1 == -1 && signature.versionMajor == 1 &&
                              signature.versionMinor == 0 && signature.codec == 1 && format.width == uint32_t(kSide) &&
                              format.height == uint32_t(kSide) &&
                              format.dataType == to_imageDataTypeCode(ImageDataType::RgbF32) &&
                              format.bytesPerValue == sizeof(TilePixel) && format.colorProfile == profileCode &&
                              format.channels == kTileChannels && format.streamLength == block.size() - kTrackedHeaderBytes;
        if (!headerOk) return message = "Tile block header is inconsistent", nullptr;
        std::vector<uint8_t> raw;
        try {
            ImageCompressorLosslessZlib::uncompressEx(block, raw, kTilePayloadBytes, 1, 0);
        } catch (const ImageCompressorLosslessZlib::CompressorException& e) {
            return message = std::string("Tile block is corrupt: ") + e.what(), nullptr;
        }
        if (raw.size() != kTilePayloadBytes) return message = "Tile block is corrupt", nullptr;
        auto tile = std::make_shared<TileImage>(_Size<int>{kSide, kSide}, profile);
        std::memcpy(tile->data(), raw.data(), kTilePayloadBytes);
        return tile;
    }

    struct PendingTile {
        int tx, ty;
        std::vector<uint8_t> block;
    };

    // Decompresses the blocks in parallel and installs the tiles; false with message on
    // the first fault (nothing is installed then).
    static bool installTiles(Store& s, std::vector<PendingTile>& pending, std::string& message) {
        const uint32_t profileCode = to_colorProfileCode(s.colorProfile());
        std::vector<std::shared_ptr<TileImage>> tiles(pending.size());
        std::atomic<bool> failed{false};
        std::mutex messageMutex;
        parallelFor(std::size_t(0), pending.size(), [&](std::size_t b, std::size_t e) {
            for (std::size_t i = b; i < e && !failed.load(std::memory_order_relaxed); ++i) {
                std::string m;
                tiles[i] = decompressTile(pending[i].block, profileCode, s.colorProfile(), m);
                if (!tiles[i]) {
                    std::lock_guard<std::mutex> lock(messageMutex);
                    if (!failed.exchange(true)) message = m;
                }
                std::vector<uint8_t>().swap(pending[i].block);
            }
        });
        if (failed) return false;
        for (std::size_t i = 0; i < pending.size(); ++i) s.installTile(pending[i].tx, pending[i].ty, std::move(tiles[i]));
        return true;
    }

    // Bytes of one present tile: its pixels and its container.
    static constexpr uint64_t kTileBytes = uint64_t(kSide) * kSide * sizeof(TilePixel) + sizeof(TileImage);
};

}  // namespace zorl::detail
