// Tiled mask: tiles over a fill value, the whole-image form, and the stream forms.

#include <imageprocessing/tiled_mask_image.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include <imageprocessing/compression.h>

#include "core/error_log.h"
#include "core/parallel.h"

namespace zorl {
namespace {

using Bytes = std::vector<uint8_t>;

// Tiles needed to cover `length` pixels: rounded up.
int64_t tilesAlong(int64_t length, int64_t tile) { return (length - 1 + tile) / tile; }

_Size<int> nonNegative(_Size<int> s) { return {std::max(0, s.width), std::max(0, s.height)}; }

void need(bool condition, const char* what) {
    if (!condition) throw DecodeError(std::string("tiled mask: ") + what);
}

// A mask block written as uint64 length and bytes; the length must fit in what is left.
Bytes readBlock(Decoder& decoder) {
    uint64_t length = 0;
    need(decoder.decodeUint64(length), "truncated block length");
    need(length > 0 && length <= decoder.remaining(), "block longer than the stream");
    Bytes block(length);
    need(decoder.decodeData(block.data(), length), "truncated block");
    return block;
}

std::shared_ptr<MaskImage> blockToMask(const Bytes& block, _Size<int> expected) {
    std::shared_ptr<MaskImage> mask;
    ImageCompressorProxy::uncompressMask(block, mask);
    need(mask != nullptr, "unreadable mask block");
    need(mask->size() == expected, "mask block of the wrong size");
    return mask;
}

}  // namespace

// ---------------------------------------------------------------- construction

TiledMaskImage::TiledMaskImage(_Size<int> size, float fillValue) : size_(nonNegative(size)), fill_(fillValue) {
    tilesX_ = static_cast<int>(tilesAlong(size_.width, tileSize_.width));
    tilesY_ = static_cast<int>(tilesAlong(size_.height, tileSize_.height));
    tiles_.resize(static_cast<std::size_t>(tilesX_) * static_cast<std::size_t>(tilesY_));
}

TiledMaskImage::TiledMaskImage(const std::shared_ptr<Decoder>& decoder) {
    int version = 0;
    if (!decoder || !decoder->decodeInt(version)) return;
    if (version == 1)
        decodeV1(decoder);
    else if (version == 2)
        decode(decoder);
}

TiledMaskImage::TiledMaskImage(const TiledMaskImage& other)
    : name_(other.name_), size_(other.size_), fill_(other.fill_), tileSize_(other.tileSize_), tilesX_(other.tilesX_),
      tilesY_(other.tilesY_), tiles_(other.tiles_),
      whole_(other.whole_ ? std::make_shared<MaskImage>(*other.whole_) : nullptr), dirty_(other.dirty_) {}

TiledMaskImage& TiledMaskImage::operator=(const TiledMaskImage& other) {
    if (this != &other) {
        TiledMaskImage copy(other);
        *this = std::move(copy);
    }
    return *this;
}

TiledMaskImage::TiledMaskImage(TiledMaskImage&& other) noexcept = default;
TiledMaskImage& TiledMaskImage::operator=(TiledMaskImage&& other) noexcept = default;
TiledMaskImage::~TiledMaskImage() = default;

TiledMaskImage::Ptr TiledMaskImage::copy() const { return std::make_shared<TiledMaskImage>(*this); }

// ---------------------------------------------------------------- geometry

_Rect<int> TiledMaskImage::getTileRect(int index) const {
    if (index < 0 || static_cast<std::size_t>(index) >= tiles_.size()) return kEmptyRect;
    const int tx = index % tilesX_, ty = index / tilesX_;
    const _Rect<int> full(tx * tileSize_.width, ty * tileSize_.height, tileSize_.width, tileSize_.height);
    return rect().intersection(full);
}

std::size_t TiledMaskImage::presentTileCount() const {
    return static_cast<std::size_t>(std::count_if(tiles_.begin(), tiles_.end(), [](const auto& t) { return t != nullptr; }));
}

// ---------------------------------------------------------------- pixels

MaskImage& TiledMaskImage::mutableTile(int index) {
    auto& t = tiles_[static_cast<std::size_t>(index)];
    if (!t)
        t = std::make_shared<MaskImage>(tileSize_, fill_);
    else if (t.use_count() > 1)  // shared with a copy: write to a private one
        t = std::make_shared<MaskImage>(*t);
    return *t;
}

void TiledMaskImage::setValue(float value, int x, int y) {
    if (whole_) {
        whole_->data()[static_cast<std::size_t>(y) * static_cast<std::size_t>(size_.width) + x] = value;
        dirty_ = dirty_.united({x, y, 1, 1});
        return;
    }
    const int index = tileIndex(x, y);
    if (!tiles_[static_cast<std::size_t>(index)] && value == fill_) return;  // nothing would change
    MaskImage& t = mutableTile(index);
    t.at(x % tileSize_.width, y % tileSize_.height) = value;
}

// ---------------------------------------------------------------- fills

void TiledMaskImage::fillRoi(const _Rect<int>& roi, float value) {
    const _Rect<int> r = clip(roi);
    if (r.isEmpty()) return;
    if (whole_) {
        whole_->fillRect(value, r);
        dirty_ = dirty_.united(r);
        return;
    }
    if (r == rect()) {
        fill_ = value;
        for (auto& t : tiles_) t.reset();
        return;
    }
    processTiles(r, [&](int index, const _Rect<int>& part) {
        auto& slot = tiles_[static_cast<std::size_t>(index)];
        const _Rect<int> tileRect = getTileRect(index);
        if (part == tileRect) {  // the tile's whole area inside the mask
            if (value == fill_)
                slot.reset();
            else if (!slot || slot.use_count() > 1)
                slot = std::make_shared<MaskImage>(tileSize_, value);
            else
                slot->fillRect(value, kNoRegion);
            return;
        }
        if (!slot && value == fill_) return;
        const _Rect<int> local(part.x - tileRect.x, part.y - tileRect.y, part.width, part.height);
        mutableTile(index).fillRect(value, local);
    });
}

void TiledMaskImage::setFillWith(float value) { fillRoi(rect(), value); }
void TiledMaskImage::setFilled() { fillRoi(rect(), 1.0f); }
void TiledMaskImage::setEmpty() { fillRoi(rect(), 0.0f); }

void TiledMaskImage::invert() {
    fill_ = 1.0f - fill_;
    parallelFor(std::size_t(0), tiles_.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            if (tiles_[i]) mutableTile(static_cast<int>(i)).invert();
    });
    if (whole_) whole_->invert();
}

// ---------------------------------------------------------------- queries

bool TiledMaskImage::tileHolds(int index, float value) const {
    const MaskImage& t = *tiles_[static_cast<std::size_t>(index)];
    const _Rect<int> r = getTileRect(index);
    if (r.size() == tileSize_) return t.isFilled(value);
    for (int y = 0; y < r.height; ++y) {
        const float* row = t.row(y);
        for (int x = 0; x < r.width; ++x)
            if (!(row[x] == value)) return false;
    }
    return true;
}

bool TiledMaskImage::isFilled(float value) const {
    if (whole_) return whole_->isFilled(value);
    for (std::size_t i = 0; i < tiles_.size(); ++i)
        if (tiles_[i] && !tileHolds(static_cast<int>(i), value)) return false;
    return true;
}

uint64_t TiledMaskImage::zeroPixelsCount() const {
    if (whole_) return whole_->zeroPixelsCount();
    uint64_t count = 0;
    for (std::size_t i = 0; i < tiles_.size(); ++i) {
        const _Rect<int> r = getTileRect(static_cast<int>(i));
        const MaskImage* t = tiles_[i].get();
        if (!t) {
            if (fill_ == 0.0f) count += static_cast<uint64_t>(r.size().area());
        } else if (r.size() == tileSize_) {
            count += t->zeroPixelsCount();
        } else {
            for (int y = 0; y < r.height; ++y) count += static_cast<uint64_t>(std::count(t->row(y), t->row(y) + r.width, 0.0f));
        }
    }
    return count;
}

// ---------------------------------------------------------------- whole-image form

std::shared_ptr<MaskImage> TiledMaskImage::buildWhole() const {
    auto whole = std::make_shared<MaskImage>(nullptr, size_);  // every pixel written below
    parallelFor(0, tilesY_, [&](int ty0, int ty1) {
        for (int ty = ty0; ty < ty1; ++ty)
            for (int tx = 0; tx < tilesX_; ++tx) {
                const int index = ty * tilesX_ + tx;
                const _Rect<int> r = getTileRect(index);
                const MaskImage* t = tiles_[static_cast<std::size_t>(index)].get();
                for (int y = 0; y < r.height; ++y) {
                    float* out = whole->row(r.y + y) + r.x;
                    if (t)
                        std::memcpy(out, t->row(y), static_cast<std::size_t>(r.width) * sizeof(float));
                    else
                        std::fill_n(out, r.width, fill_);
                }
            }
    });
    return whole;
}

void TiledMaskImage::prepare(const _Rect<int>& roi) {
    if (size_.isEmpty()) return;
    const _Rect<int> r = clip(roi);
    if (!whole_) {
        whole_ = buildWhole();
        dirty_ = r;
    } else {
        dirty_ = dirty_.united(r);
    }
}

std::shared_ptr<MaskImage> TiledMaskImage::maskImage(_Size<int> size) const {
    if (size_.isEmpty()) return nullptr;
    const _Size<int> target = size.isEmpty() ? size_ : size;
    std::shared_ptr<MaskImage> flat = whole_ ? whole_ : buildWhole();
    if (target == size_) return flat;
    return flat->resize(target, kNoRegion, true);
}

void TiledMaskImage::writeBack(int index) {
    const _Rect<int> r = getTileRect(index);
    bool constant = true;
    for (int y = 0; y < r.height && constant; ++y) {
        const float* in = whole_->row(r.y + y) + r.x;
        constant = std::all_of(in, in + r.width, [&](float v) { return v == fill_; });
    }
    auto& slot = tiles_[static_cast<std::size_t>(index)];
    if (constant) {
        slot.reset();
        return;
    }
    if (!slot || slot.use_count() > 1) slot = std::make_shared<MaskImage>(tileSize_, fill_);
    for (int y = 0; y < r.height; ++y)
        std::memcpy(slot->row(y), whole_->row(r.y + y) + r.x, static_cast<std::size_t>(r.width) * sizeof(float));
}

void TiledMaskImage::store() {
    if (!whole_) return;
    std::vector<int> touched;
    processTiles(dirty_, [&](int index, const _Rect<int>&) { touched.push_back(index); });
    parallelFor(std::size_t(0), touched.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) writeBack(touched[i]);
    });
    whole_.reset();
    dirty_ = kEmptyRect;
}

// ---------------------------------------------------------------- iterator

void TiledMaskImage::Iterator::locate() {
    ptr_ = nullptr;
    runLeft_ = 1;
    if (!mask_ || index_ < 0 || index_ >= mask_->area()) return;
    const int w = mask_->size_.width;
    const int y = static_cast<int>(index_ / w), x = static_cast<int>(index_ % w);
    if (mask_->whole_) {
        ptr_ = mask_->whole_->data() + index_;
        runLeft_ = mask_->area() - index_;
        return;
    }
    const _Size<int> ts = mask_->tileSize_;
    const MaskImage* t = mask_->tiles_[static_cast<std::size_t>(mask_->tileIndex(x, y))].get();
    const int tileX = x % ts.width;
    runLeft_ = std::min(ts.width - tileX, w - x);
    if (t) ptr_ = t->row(y % ts.height) + tileX;
}

// ---------------------------------------------------------------- streams

void TiledMaskImage::encode(const std::shared_ptr<Encoder>& encoder, bool compressed) const {
    if (!checkNotNull(encoder, "void __cdecl zorl::TiledMaskImage::encode(const class std::shared_ptr<class zorl::Encoder> &,bool)const",
                      "encoder is null"))
        return;
    encoder->encodeInt(kStreamVersion);
    encoder->encodeUint8(compressed ? 1 : 0);
    encoder->encodeInt(size_.width);
    encoder->encodeInt(size_.height);
    encoder->encodeFloat(fill_);
    encoder->encodeInt(tileSize_.width);
    encoder->encodeInt(tileSize_.height);
    encoder->encodeInt(tilesX_);
    encoder->encodeInt(tilesY_);

    // Tiles are compressed in parallel, then written in index order.
    std::vector<Bytes> blocks;
    if (compressed) {
        blocks.resize(tiles_.size());
        parallelFor(std::size_t(0), tiles_.size(), [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i)
                if (tiles_[i]) ImageCompressorProxy::compressMask(*tiles_[i], blocks[i]);
        });
    }
    auto put = [&](const MaskImage* mask, const Bytes* block) {
        if (!mask) {
            encoder->encodeUint8(0);
            return;
        }
        encoder->encodeUint8(1);
        if (compressed) {
            encoder->encodeUint64(block->size());
            encoder->encodeData(block->data(), block->size());
        } else {
            mask->encode(encoder, Compression::None);
        }
    };
    for (std::size_t i = 0; i < tiles_.size(); ++i) put(tiles_[i].get(), compressed ? &blocks[i] : nullptr);
    Bytes wholeBlock;
    if (whole_ && compressed) ImageCompressorProxy::compressMask(*whole_, wholeBlock);
    put(whole_.get(), &wholeBlock);
}

void TiledMaskImage::decode(const std::shared_ptr<Decoder>& decoder) { decodeBody(decoder, 2); }
void TiledMaskImage::decodeV1(const std::shared_ptr<Decoder>& decoder) { decodeBody(decoder, 1); }

void TiledMaskImage::decodeBody(const std::shared_ptr<Decoder>& decoderPtr, int version) {
    need(decoderPtr != nullptr, "no decoder");
    Decoder& d = *decoderPtr;
    uint8_t compressed = 1;  // version 1 always holds mask blocks
    if (version == 2) need(d.decodeUint8(compressed) && compressed <= 1, "bad compression flag");
    int w = 0, h = 0, tw = 0, th = 0, tx = 0, ty = 0;
    float fill = 0.0f;
    need(d.decodeInt(w) && d.decodeInt(h) && d.decodeFloat(fill) && d.decodeInt(tw) && d.decodeInt(th) &&
             d.decodeInt(tx) && d.decodeInt(ty),
         "truncated header");
    need(w >= 0 && h >= 0, "bad size");
    need(tw >= 1 && th >= 1 && tw <= kMaxDecodedTileSide && th <= kMaxDecodedTileSide, "bad tile size");
    need(tx == tilesAlong(w, tw) && ty == tilesAlong(h, th), "tile counts do not match the size");
    // Every tile costs at least its presence byte: the table cannot outgrow the stream.
    const uint64_t count = uint64_t(tx) * uint64_t(ty);
    need(count <= d.remaining() && count <= uint64_t(INT_MAX), "more tiles than the stream can hold");

    const _Size<int> tileSize(tw, th), size(w, h);
    std::vector<std::shared_ptr<MaskImage>> tiles(count);
    std::vector<Bytes> blocks(count);
    auto readEntry = [&](std::shared_ptr<MaskImage>& slot, Bytes& block, _Size<int> expected) {
        uint8_t present = 0;
        need(d.decodeUint8(present) && present <= 1, "bad presence flag");
        if (!present) return;
        if (compressed) {
            block = readBlock(d);
        } else {
            slot = std::make_shared<MaskImage>(decoderPtr);  // throws DecodeError when bad
            need(slot->size() == expected, "tile of the wrong size");
        }
    };
    for (std::size_t i = 0; i < count; ++i) readEntry(tiles[i], blocks[i], tileSize);
    std::shared_ptr<MaskImage> whole;
    Bytes wholeBlock;
    if (version == 2) {
        readEntry(whole, wholeBlock, size);
        need(!whole || !size.isEmpty(), "whole image of an empty mask");
    }
    if (compressed) {
        parallelFor(std::size_t(0), count, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i)
                if (!blocks[i].empty()) tiles[i] = blockToMask(blocks[i], tileSize);
        });
        if (!wholeBlock.empty()) whole = blockToMask(wholeBlock, size);
    }

    size_ = size;
    fill_ = fill;
    tileSize_ = tileSize;
    tilesX_ = tx;
    tilesY_ = ty;
    tiles_ = std::move(tiles);
    whole_ = std::move(whole);
    dirty_ = whole_ ? rect() : kEmptyRect;  // a stored whole image may differ anywhere from the tiles
}

}  // namespace zorl
