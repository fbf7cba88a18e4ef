#pragma once
// TiledMaskImage: a single-channel float mask of document size, held as a grid of square
// tiles over a constant fill value. Absent tiles read as the fill value, so a mask that a
// brush touched in one place costs memory only for the tiles it touched (a 50-pixel dab
// holds at most 4 tiles, whatever the mask size).
//
// Tiles are tileSize (300 x 300 for new masks), edge tiles too: their pixels beyond the
// mask ("padding") are never read, counted or compared. Tile index of pixel (x, y):
// (y / tileHeight) * tilesX + x / tileWidth.
//
// Memory rules:
// - writing the fill value into an absent tile creates nothing;
// - a fill that covers a tile's whole area inside the mask releases the tile when the
//   value is the fill value (and otherwise fills the tile, padding included);
// - a fill of the whole mask resets it to a constant and drops every tile;
// - store() releases every written-back tile that holds only the fill value;
// - copies share their tiles until one of them writes (copy on write), so copy() is cheap.
//
// Whole-image form: prepare(rect) builds one MaskImage of the mask size that then takes
// precedence for reads, writes, fills and inversion; rect (empty: the whole mask) names
// the region the caller means to edit through maskImage(). store() writes back the tiles
// touched by that region and by every edit made through this object, then drops the whole
// image. Edits made through maskImage() outside the prepared region are lost on store().
//
// No bounds checks on pixel access (getValue, setValue, operator[]); rectangles are
// clipped to the mask, and the empty rectangle kNoRegion means the whole mask.
// Not locked: one writer at a time; reads may run in parallel while nothing is written.

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <imageprocessing/export.h>
#include <zorl/core/codec.h>
#include <zorl/core/geometry.h>
#include <zorl/core/mask_image.h>

namespace zorl {

class ZORL_IP_EXPORT TiledMaskImage {
public:
    using Ptr = std::shared_ptr<TiledMaskImage>;

    // Tile size of every new mask.
    static constexpr _Size<int> kDefaultTileSize{300, 300};
    // Largest tile side accepted from a stream: a bigger one would let a tiny file make the
    // first write allocate an unbounded tile.
    static constexpr int kMaxDecodedTileSide = 4096;
    // Format version written by encode.
    static constexpr int kStreamVersion = 2;

    // All tiles absent, no whole image. A negative side counts as 0.
    TiledMaskImage(_Size<int> size, float fillValue);
    // Reads a version-1 or version-2 stream (the version int first). An unreadable or
    // unknown version leaves the default state (0 x 0, fill 0, no tiles) without an error;
    // a damaged stream throws DecodeError (or CompressorException from a tile's block).
    explicit TiledMaskImage(const std::shared_ptr<Decoder>& decoder);
    TiledMaskImage(const TiledMaskImage& other);
    TiledMaskImage& operator=(const TiledMaskImage& other);
    TiledMaskImage(TiledMaskImage&& other) noexcept;
    TiledMaskImage& operator=(TiledMaskImage&& other) noexcept;
    ~TiledMaskImage();

    // A new mask with the same contents (tiles shared until written).
    Ptr copy() const;

    // A label for the caller's use (logs, debugging); not serialised. Empty at first.
    const std::string& name() const { return name_; }
    void setName(std::string name) { name_ = std::move(name); }

    // Geometry.
    _Size<int> size() const { return size_; }
    int width() const { return size_.width; }
    int height() const { return size_.height; }
    _Rect<int> rect() const { return {0, 0, size_.width, size_.height}; }
    int64_t area() const { return size_.area(); }
    float fillValue() const { return fill_; }
    _Size<int> tileSize() const { return tileSize_; }
    int tilesX() const { return tilesX_; }
    int tilesY() const { return tilesY_; }
    int tileCount() const { return static_cast<int>(tiles_.size()); }
    int tileIndex(int x, int y) const { return (y / tileSize_.height) * tilesX_ + x / tileSize_.width; }
    // The part of the mask that tile `index` covers (edge tiles clipped); empty for an
    // index out of range.
    _Rect<int> getTileRect(int index) const;
    // Tile `index` (null when absent), read-only; the caller's reference survives later
    // writes, which then go to a private copy.
    std::shared_ptr<const MaskImage> tile(int index) const { return tiles_[static_cast<std::size_t>(index)]; }
    // Number of present tiles.
    std::size_t presentTileCount() const;
    bool isPrepared() const { return static_cast<bool>(whole_); }

    // Pixel access (no bounds checks).
    float getValue(int x, int y) const;
    void setValue(float value, int x, int y);
    // The pixel at linear index y * width + x.
    float operator[](int64_t index) const { return getValue(int(index % size_.width), int(index / size_.width)); }

    // Region and whole-mask edits.
    void fillRoi(const _Rect<int>& rect, float value);
    void setFillWith(float value);
    void setFilled();  // 1.0 everywhere
    void setEmpty();   // 0.0 everywhere
    // m := 1 - m for the fill value, every present tile and the whole image.
    void invert();

    // Whole image present: its own isFilled. Otherwise true unless a present tile holds
    // another value; absent tiles are not compared with the fill value (so a mask without
    // tiles and fill 1.0 is "empty"): callers rely on the tile contents only.
    bool isFilled(float value) const;
    bool isEmpty() const { return isFilled(0.0f); }
    // Pixels of the mask equal to 0: an absent tile counts its area when the fill is 0.
    uint64_t zeroPixelsCount() const;

    // Whole-image form (see the file comment).
    void prepare(const _Rect<int>& rect);
    // The mask as one image of `size` (the mask size when empty): the whole image itself
    // when prepared and of that size, else a new image (resized through MaskImage::resize,
    // averaging). Null for an empty mask.
    std::shared_ptr<MaskImage> maskImage(_Size<int> size = kEmptySize) const;
    void store();

    // Calls fn(int index, const _Rect<int>& part) for every tile that rect (clipped to the
    // mask; kNoRegion: the whole mask) touches, row by row in index order; part is the piece
    // of rect inside the tile, in mask coordinates.
    template <class F>
    void processTiles(const _Rect<int>& rect, F&& fn) const {
        const _Rect<int> r = clip(rect);
        if (r.isEmpty()) return;
        const int tw = tileSize_.width, th = tileSize_.height;
        for (int ty = r.y / th; ty <= (r.bottom() - 1) / th; ++ty)
            for (int tx = r.x / tw; tx <= (r.right() - 1) / tw; ++tx) {
                const int index = ty * tilesX_ + tx;
                fn(index, r.intersection(getTileRect(index)));
            }
    }

    // Reads the pixels in row-major order (index y * width + x), a run at a time. Any write
    // to the mask invalidates its iterators.
    class ZORL_IP_EXPORT Iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = float;
        using difference_type = int64_t;
        using pointer = const float*;
        using reference = float;

        Iterator() = default;
        Iterator(const TiledMaskImage* mask, int64_t index) : mask_(mask) { setIndex(index); }

        float operator*() const { return ptr_ ? *ptr_ : mask_->fill_; }
        Iterator& operator++() {
            ++index_;
            if (--runLeft_ > 0) {
                if (ptr_) ++ptr_;
            } else {
                locate();
            }
            return *this;
        }
        Iterator operator++(int) {
            Iterator old = *this;
            ++*this;
            return old;
        }
        Iterator& operator+=(int64_t n) {
            setIndex(index_ + n);
            return *this;
        }
        int64_t operator-(const Iterator& other) const { return index_ - other.index_; }
        bool operator==(const Iterator& other) const { return mask_ == other.mask_ && index_ == other.index_; }
        bool operator!=(const Iterator& other) const { return !(*this == other); }

        void setIndex(int64_t index) {
            index_ = index;
            locate();
        }
        int64_t index() const { return index_; }

    private:
        void locate();  // ptr_ and runLeft_ for index_

        const TiledMaskImage* mask_ = nullptr;
        int64_t index_ = 0;
        const float* ptr_ = nullptr;  // current pixel, or null inside an absent tile
        int64_t runLeft_ = 0;         // pixels left in the current run, this one included
    };

    Iterator begin() const { return Iterator(this, 0); }
    Iterator end() const { return Iterator(this, area()); }

    // Version-2 stream: int 2, uint8 compressed, int width, int height, float fill, int
    // tileWidth, int tileHeight, int tilesX, int tilesY, per tile uint8 0 (absent) or 1 and
    // the tile, then uint8 0 or 1 and the whole image. A tile (and the whole image) is a
    // mask block (uint64 length and bytes) when compressed, else its own MaskImage stream.
    // A null encoder is logged.
    void encode(const std::shared_ptr<Encoder>& encoder, bool compressed) const;
    // The rest of a version-2 (decode) or version-1 (decodeV1) stream after its version int.
    // On success the contents are replaced (the name is kept); on a damaged stream
    // DecodeError (or CompressorException) is thrown and the object is unchanged.
    // Version 1: int width, int height, float fill, int tileWidth, int tileHeight, int
    // tilesX, int tilesY, per tile uint8 0 or 1 and a mask block (uint64 length and bytes,
    // tracked or untracked); no whole image.
    void decode(const std::shared_ptr<Decoder>& decoder);
    void decodeV1(const std::shared_ptr<Decoder>& decoder);

private:
    struct Layout;
    void decodeBody(const std::shared_ptr<Decoder>& decoder, int version);
    _Rect<int> clip(const _Rect<int>& r) const { return r == kNoRegion ? rect() : rect().intersection(r); }
    MaskImage& mutableTile(int index);
    bool tileHolds(int index, float value) const;
    std::shared_ptr<MaskImage> buildWhole() const;
    void writeBack(int index);

    std::string name_;
    _Size<int> size_{};
    float fill_ = 0.0f;
    _Size<int> tileSize_ = kDefaultTileSize;
    int tilesX_ = 0;
    int tilesY_ = 0;
    std::vector<std::shared_ptr<MaskImage>> tiles_;
    std::shared_ptr<MaskImage> whole_;
    _Rect<int> dirty_{};  // what store() writes back
};

inline float TiledMaskImage::getValue(int x, int y) const {
    if (whole_) return whole_->data()[static_cast<std::size_t>(y) * static_cast<std::size_t>(size_.width) + x];
    const MaskImage* t = tiles_[static_cast<std::size_t>(tileIndex(x, y))].get();
    if (!t) return fill_;
    return t->data()[static_cast<std::size_t>(y % tileSize_.height) * static_cast<std::size_t>(tileSize_.width) +
                     static_cast<std::size_t>(x % tileSize_.width)];
}

}  // namespace zorl
