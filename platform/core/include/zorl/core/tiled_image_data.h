#pragma once
// TiledImageData: the abstract base of the tiled RGB image stores (float RGB pixels over
// a fill colour, held as square tiles that exist only where something was written).
// The stores themselves (KelTiledImageData, BarcTiledImageData) live in the image
// library and implement every pixel and tile operation declared here; the base holds
// what every store has: size, fill colour, colour profile and load state.
//
// Coordinates are image pixels; tile (tx, ty) covers the columns tx * side ..
// tx * side + side - 1 and the rows likewise, and its index is ty * tilesX() + tx.
// A tile's pixels are a row-major side x side raster; an edge tile is allocated whole
// and its pixels past the image are never read.

#include <cstdint>
#include <memory>

#include <zorl/core/codec.h>
#include <zorl/core/color_profile.h>
#include <zorl/core/export.h>
#include <zorl/core/geometry.h>
#include <zorl/core/image_data.h>
#include <zorl/core/pixel.h>
#include <zorl/core/types.h>

namespace zorl {

// Largest side of a tiled store. It bounds the tile tables that a size read from a
// stream can ask for (a few MiB at most).
inline constexpr int kMaxTiledImageSide = 1 << 17;

class ZORL_CORE_EXPORT TiledImageData {
public:
    using Pixel = PixelRGB<float>;
    using ImageData = _ImageData<PixelRGB<float>>;

    virtual ~TiledImageData();

    _Size<int> size() const { return size_; }
    int width() const { return size_.width; }
    int height() const { return size_.height; }
    _Rect<int> rect() const { return {0, 0, size_.width, size_.height}; }
    // The colour of every pixel of an absent tile.
    const Pixel& fillColor() const { return fill_; }
    ColorProfilePtr colorProfile() const { return profile_; }
    ImageLoadState getLoadState() const { return loadState_; }
    void setLoadState(ImageLoadState state) { loadState_ = state; }

    // Tile grid. The side is a constant of each store.
    virtual int tileSide() const = 0;
    int tilesX() const;
    int tilesY() const;
    int tileCount() const { return tilesX() * tilesY(); }
    // The part of the image that tile `index` covers; empty for an index out of range.
    _Rect<int> getTileRect(int index) const;
    virtual bool hasTile(int index) const = 0;
    // The pixels of tile (tx, ty) (tileSide() squared, row-major), null when the tile is
    // absent or out of range. Valid until the next write to the store.
    virtual const Pixel* tilePixels(int tx, int ty) const = 0;
    virtual int presentTileCount() const = 0;
    // Bytes held: the pixels of the present tiles and the store's own tables.
    virtual uint64_t heldBytes() const = 0;

    // The pixel at (x, y); the fill colour outside the image.
    virtual Pixel getPixel(int x, int y) const = 0;
    // Writes one pixel; a position outside the image is ignored.
    virtual void setPixel(const Pixel& value, int x, int y) = 0;
    // The rectangle r (the whole image for kNoRegion) clipped to the image, as a new
    // image with the store's profile and load state; null when nothing is left.
    virtual ImageData::Ptr readRect(_Rect<int> r) const = 0;
    // Copies srcRect of src (the whole of src for kNoRegion) with its top-left corner at
    // `at`; what falls outside src or the image is skipped.
    virtual void writeRect(const ImageData& src, _Rect<int> srcRect, _Point<int> at) = 0;
    // Sets every pixel of r (clipped; the whole image for kNoRegion) to value.
    virtual void fillRoi(_Rect<int> r, const Pixel& value) = 0;
    // Drops every tile: the whole image becomes value.
    virtual void setFillWith(const Pixel& value) = 0;
    // Writes the store to the stream (the store's own format, compressed tiles).
    virtual void encode(const std::shared_ptr<Encoder>& encoder) const = 0;

protected:
    // A null profile stands for ColorProfileType::None(). The size must already be
    // valid (each side 0 .. kMaxTiledImageSide); the stores check it.
    TiledImageData(_Size<int> size, const Pixel& fill, ColorProfilePtr profile);
    TiledImageData(const TiledImageData&) = default;
    TiledImageData& operator=(const TiledImageData&) = default;

    _Size<int> size_;
    Pixel fill_;
    ColorProfilePtr profile_;
    ImageLoadState loadState_ = ImageLoadState::Full;
};

}  // namespace zorl
