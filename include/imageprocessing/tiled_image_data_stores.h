#pragma once
// The tiled RGB image stores: float RGB pixels over a fill colour, holding only the
// tiles that were written. Absent tiles read as the fill colour.
//
// - KelTiledImageData, the current scheme: 128 x 128 tiles grouped in supertiles of
//   16 x 16 tiles (a supertile exists only while one of its tiles does), and a modified
//   flag per tile that every write sets; the owner lists and clears the flags (the
//   editor saves and undoes only modified tiles).
// - BarcTiledImageData, the older scheme: 256 x 256 tiles in one flat grid, kept so that
//   documents written with it still open and edit.
//
// Writes outside the image are clipped away; reads outside it give the fill colour.
// A size with a side below 0 or above kMaxTiledImageSide is logged and gives a 0 x 0
// store. Neither store is locked: one writer at a time, and no reads during a write.
//
// Operations both stores offer beyond the TiledImageData interface:
// - blendWithTiledImageData(layer, mask, opacity): blends `layer` (same scheme and size)
//   over this store, mode Normal: tile by tile through blendImages, this store's tiles as
//   base and result. mask (optional, the store's size) weights each pixel, times opacity.
//   Tiles absent in both stay absent: without a mask the fill colour becomes the blend of
//   the two fill colours. A size mismatch is logged ("Images have different sizes",
//   "Mask has wrong size!") and nothing changes. layer may be this store.
// - blendWithImageData(image, rp, mask, opacity): blends `image`, which shows the canvas
//   rectangle rp.rect of this store at rp.size, into the tiles of that rectangle (mode
//   Normal, optional mask of the image's size, opacity). Store pixel (x, y) reads the
//   image at u = (x - rect.x + 0.5) * size.w / rect.w - 0.5 (v likewise): bilinear with
//   edges clamped when rp.resizeFlag, else the nearest pixel; equal sizes copy exactly.
//   A null image, an image not of rp.size, an empty rp or a mask of another size is
//   logged and nothing changes.
// - encode(encoder): size, fill colour, profile, tile geometry and every present tile as
//   a tracked zlib block (the serialised form is in docs/DESIGN.md). The load state and
//   the modified flags are not written. Throws CompressorException when zlib fails.
// - decode(decoder): reads what encode wrote. Null, after one log line, on any fault of
//   the stream; never a partial store.

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include <imageprocessing/export.h>
#include <zorl/core/codec.h>
#include <zorl/core/image_data.h>
#include <zorl/core/image_transform_settings.h>
#include <zorl/core/tiled_image_data.h>

namespace zorl {

namespace detail {
template <class Store>
struct TiledStoreOps;
}

class ZORL_IP_EXPORT KelTiledImageData final : public TiledImageData {
public:
    static constexpr int kTileSide = 128;      // a dab costs ~200 KB per tile it touches
    static constexpr int kSupertileTiles = 16;  // tiles per supertile side (2048 pixels)
    using Ptr = std::shared_ptr<KelTiledImageData>;

    KelTiledImageData(_Size<int> size, const Pixel& fill, ColorProfilePtr profile);
    // Deep copies: tiles and modified flags.
    KelTiledImageData(const KelTiledImageData& other);
    KelTiledImageData& operator=(const KelTiledImageData& other);
    ~KelTiledImageData() override;

    int tileSide() const override { return kTileSide; }
    bool hasTile(int index) const override;
    const Pixel* tilePixels(int tx, int ty) const override;
    int presentTileCount() const override { return presentTiles_; }
    uint64_t heldBytes() const override;
    int presentSupertileCount() const;

    Pixel getPixel(int x, int y) const override;
    void setPixel(const Pixel& value, int x, int y) override;
    ImageData::Ptr readRect(_Rect<int> r) const override;
    void writeRect(const ImageData& src, _Rect<int> srcRect, _Point<int> at) override;
    void fillRoi(_Rect<int> r, const Pixel& value) override;
    void setFillWith(const Pixel& value) override;

    void blendWithTiledImageData(const KelTiledImageData& layer, const std::shared_ptr<const _ImageData<float>>& mask,
                                 float opacity);
    void blendWithImageData(const std::shared_ptr<const ImageData>& image, const ResizeParameters& rp,
                            const std::shared_ptr<const _ImageData<float>>& mask, float opacity);

    void encode(const std::shared_ptr<Encoder>& encoder) const override;
    static Ptr decode(const std::shared_ptr<Decoder>& decoder);

    // Modified flags, by tile index.
    bool isTileModified(int index) const;
    std::vector<int> modifiedTiles() const;  // ascending
    void clearModified();
    void clearModified(int index);

private:
    template <class Store>
    friend struct detail::TiledStoreOps;
    struct Supertile {
        std::array<std::shared_ptr<ImageData>, kSupertileTiles * kSupertileTiles> tiles;
        int present = 0;
    };

    const ImageData* tileAt(int tx, int ty) const {
        const auto& st = supertiles_[static_cast<std::size_t>(ty / kSupertileTiles) * superX_ + tx / kSupertileTiles];
        return st ? st->tiles[(ty % kSupertileTiles) * kSupertileTiles + tx % kSupertileTiles].get() : nullptr;
    }
    // The tile, made filled with the fill colour when absent; its modified flag is set.
    const std::shared_ptr<ImageData>& touchTile(int tx, int ty);
    void releaseTile(int tx, int ty);
    void resetTiles(const Pixel& fill);
    void installTile(int tx, int ty, std::shared_ptr<ImageData> tile);
    void markAllModified();

    int tilesX_ = 0, tilesY_ = 0, superX_ = 0, superY_ = 0;
    int presentTiles_ = 0;
    std::vector<std::unique_ptr<Supertile>> supertiles_;
    std::vector<uint8_t> modified_;  // one byte per tile: parallel writers never share one
};

class ZORL_IP_EXPORT BarcTiledImageData final : public TiledImageData {
public:
    static constexpr int kTileSide = 256;
    using Ptr = std::shared_ptr<BarcTiledImageData>;

    BarcTiledImageData(_Size<int> size, const Pixel& fill, ColorProfilePtr profile);
    // Deep copies.
    BarcTiledImageData(const BarcTiledImageData& other);
    BarcTiledImageData& operator=(const BarcTiledImageData& other);
    ~BarcTiledImageData() override;

    int tileSide() const override { return kTileSide; }
    bool hasTile(int index) const override;
    const Pixel* tilePixels(int tx, int ty) const override;
    int presentTileCount() const override { return presentTiles_; }
    uint64_t heldBytes() const override;

    Pixel getPixel(int x, int y) const override;
    void setPixel(const Pixel& value, int x, int y) override;
    ImageData::Ptr readRect(_Rect<int> r) const override;
    void writeRect(const ImageData& src, _Rect<int> srcRect, _Point<int> at) override;
    void fillRoi(_Rect<int> r, const Pixel& value) override;
    void setFillWith(const Pixel& value) override;

    void blendWithTiledImageData(const BarcTiledImageData& layer, const std::shared_ptr<const _ImageData<float>>& mask,
                                 float opacity);
    void blendWithImageData(const std::shared_ptr<const ImageData>& image, const ResizeParameters& rp,
                            const std::shared_ptr<const _ImageData<float>>& mask, float opacity);

    void encode(const std::shared_ptr<Encoder>& encoder) const override;
    static Ptr decode(const std::shared_ptr<Decoder>& decoder);

private:
    template <class Store>
    friend struct detail::TiledStoreOps;

    const ImageData* tileAt(int tx, int ty) const {
        return tiles_[static_cast<std::size_t>(ty) * tilesX_ + tx].get();
    }
    const std::shared_ptr<ImageData>& touchTile(int tx, int ty);
    void releaseTile(int tx, int ty);
    void resetTiles(const Pixel& fill);
    void installTile(int tx, int ty, std::shared_ptr<ImageData> tile);
    void markAllModified() {}

    int tilesX_ = 0, tilesY_ = 0;
    int presentTiles_ = 0;
    std::vector<std::shared_ptr<ImageData>> tiles_;  // row-major, empty = absent
};

}  // namespace zorl
