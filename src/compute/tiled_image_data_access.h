#pragma once
// Internal: how the resampler reads the tiled RGB stores. The accessor gives the
// sampling kernel the same width() / height() / at(x, y) as a dense image, reading
// each pixel in place from its tile (an absent tile reads as the fill colour), so a
// rendition of a tiled store equals the rendition of its dense equivalent pixel for
// pixel under the same sampling rule.
//
// Only the tiles that the destination region needs are looked up: the source rectangle
// is the region itself for the identity transform, else the enclosingRect of the region
// under the sampling transform; both are taken one pixel larger on the right and bottom
// (sample offsets reach x + 1) and grown by one pixel (the bilinear neighbour and the
// rounding of enclosingRect), then clipped to the store. The accessor keeps a flat table
// of tile pointers over that rectangle; a position outside it (never met by the
// kernel's own sampling) falls back to the store's getPixel.
//
// The older scheme samples pixel centres instead of corners: documents written with it
// were rendered that way, and its renditions must not shift by half a pixel.

#include <bit>
#include <type_traits>
#include <vector>

#include <imageprocessing/tiled_image_data_stores.h>
#include <zorl/core/affine_transform.h>
#include <zorl/core/geometry.h>

namespace zorl::detail {

template <class Store>
class TiledSourceAccess {
public:
    using Pixel = PixelRGB<float>;
    static constexpr bool kCentreSample = std::is_same_v<Store, BarcTiledImageData>;
    static constexpr int kSide = Store::kTileSide;
    static_assert((kSide & (kSide - 1)) == 0, "tile sides are powers of two: positions split by shifts");
    static constexpr int kShift = std::countr_zero(static_cast<unsigned>(kSide));

    // region: the destination pixels that will be sampled (already clipped).
    TiledSourceAccess(const Store& store, const AffineTransform& samplingTransform, const _Rect<int>& region)
        : store_(store), fill_(store.fillColor()) {
        if (region.isEmpty()) return;
        const _Rect<int> reach{region.x, region.y, region.width + 1, region.height + 1};
        const _Rect<int> needed =
            (samplingTransform.isIdentity() ? reach : samplingTransform.enclosingRect(reach)).inset(-1, -1);
        const _Rect<int> inStore = needed.intersection(store.rect());
        if (inStore.isEmpty()) return;
        tx0_ = inStore.x >> kShift;
        ty0_ = inStore.y >> kShift;
        nx_ = ((inStore.right() - 1) >> kShift) - tx0_ + 1;
        ny_ = ((inStore.bottom() - 1) >> kShift) - ty0_ + 1;
        table_.resize(static_cast<std::size_t>(nx_) * ny_);
        for (int j = 0; j < ny_; ++j)
            for (int i = 0; i < nx_; ++i) table_[static_cast<std::size_t>(j) * nx_ + i] = store.tilePixels(tx0_ + i, ty0_ + j);
    }

    int width() const { return store_.width(); }
    int height() const { return store_.height(); }
    ImageLoadState loadState() const { return store_.getLoadState(); }

    // (x, y) inside the store.
    Pixel at(int x, int y) const {
        const unsigned i = static_cast<unsigned>((x >> kShift) - tx0_), j = static_cast<unsigned>((y >> kShift) - ty0_);
        if (i < static_cast<unsigned>(nx_) && j < static_cast<unsigned>(ny_)) {
            const Pixel* tile = table_[static_cast<std::size_t>(j) * nx_ + i];
            return tile ? tile[((y & (kSide - 1)) << kShift) + (x & (kSide - 1))] : fill_;
        }
        return store_.getPixel(x, y);
    }

    // Tiles in the table (for tests: the part of the store a call looks at).
    std::size_t tableSize() const { return table_.size(); }

private:
    const Store& store_;
    Pixel fill_;
    int tx0_ = 0, ty0_ = 0, nx_ = 0, ny_ = 0;
    std::vector<const Pixel*> table_;
};

}  // namespace zorl::detail
