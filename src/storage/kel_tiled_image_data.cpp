// KelTiledImageData: 128 x 128 tiles in supertiles of 16 x 16 tiles, and one modified
// flag per tile. The supertile table has one pointer per 2048 x 2048 block of the image;
// a supertile (256 tile pointers) exists only while one of its tiles does. The flags sit
// in a flat table beside it, so a flag outlives the release of its tile.

#include <imageprocessing/tiled_image_data_stores.h>

#include "storage/tiled_image_data_ops.h"

namespace zorl {

using KelOps = detail::TiledStoreOps<KelTiledImageData>;

KelTiledImageData::KelTiledImageData(_Size<int> size, const Pixel& fill, ColorProfilePtr profile)
    : TiledImageData(KelOps::checkedSize(size), fill, std::move(profile)) {
    tilesX_ = (size_.width + kTileSide - 1) / kTileSide;
    tilesY_ = (size_.height + kTileSide - 1) / kTileSide;
    superX_ = (tilesX_ + kSupertileTiles - 1) / kSupertileTiles;
    superY_ = (tilesY_ + kSupertileTiles - 1) / kSupertileTiles;
    supertiles_.resize(static_cast<std::size_t>(superX_) * superY_);
    modified_.assign(static_cast<std::size_t>(tilesX_) * tilesY_, 0);
}

KelTiledImageData::KelTiledImageData(const KelTiledImageData& other)
    : TiledImageData(other),
      tilesX_(other.tilesX_),
      tilesY_(other.tilesY_),
      superX_(other.superX_),
      superY_(other.superY_),
      presentTiles_(other.presentTiles_),
      supertiles_(other.supertiles_.size()),
      modified_(other.modified_) {
    for (std::size_t i = 0; i < supertiles_.size(); ++i) {
        if (!other.supertiles_[i]) continue;
        supertiles_[i] = std::make_unique<Supertile>();
        supertiles_[i]->present = other.supertiles_[i]->present;
        for (std::size_t t = 0; t < supertiles_[i]->tiles.size(); ++t)
            if (const auto& tile = other.supertiles_[i]->tiles[t]) supertiles_[i]->tiles[t] = std::make_shared<ImageData>(*tile);
    }
}

KelTiledImageData& KelTiledImageData::operator=(const KelTiledImageData& other) {
    if (this != &other) {
        KelTiledImageData copy(other);
        TiledImageData::operator=(copy);
        tilesX_ = copy.tilesX_;
        tilesY_ = copy.tilesY_;
        superX_ = copy.superX_;
        superY_ = copy.superY_;
        presentTiles_ = copy.presentTiles_;
        supertiles_ = std::move(copy.supertiles_);
        modified_ = std::move(copy.modified_);
    }
    return *this;
}

KelTiledImageData::~KelTiledImageData() = default;

bool KelTiledImageData::hasTile(int index) const {
    if (index < 0 || index >= tilesX_ * tilesY_) return false;
    return tileAt(index % tilesX_, index / tilesX_) != nullptr;
}

const KelTiledImageData::Pixel* KelTiledImageData::tilePixels(int tx, int ty) const {
    if (tx < 0 || ty < 0 || tx >= tilesX_ || ty >= tilesY_) return nullptr;
    const ImageData* t = tileAt(tx, ty);
    return t ? t->data() : nullptr;
}

int KelTiledImageData::presentSupertileCount() const {
    return static_cast<int>(std::count_if(supertiles_.begin(), supertiles_.end(), [](const auto& s) { return s != nullptr; }));
}

uint64_t KelTiledImageData::heldBytes() const {
    return uint64_t(presentTiles_) * KelOps::kTileBytes + uint64_t(presentSupertileCount()) * sizeof(Supertile) +
           supertiles_.capacity() * sizeof(supertiles_[0]) + modified_.capacity();
}

const std::shared_ptr<KelTiledImageData::ImageData>& KelTiledImageData::touchTile(int tx, int ty) {
    auto& st = supertiles_[static_cast<std::size_t>(ty / kSupertileTiles) * superX_ + tx / kSupertileTiles];
    if (!st) st = std::make_unique<Supertile>();
    auto& tile = st->tiles[(ty % kSupertileTiles) * kSupertileTiles + tx % kSupertileTiles];
    if (!tile) {
        tile = KelOps::newTile(*this);
        ++st->present;
        ++presentTiles_;
    }
    modified_[static_cast<std::size_t>(ty) * tilesX_ + tx] = 1;
    return tile;
}

void KelTiledImageData::releaseTile(int tx, int ty) {
    modified_[static_cast<std::size_t>(ty) * tilesX_ + tx] = 1;
    auto& st = supertiles_[static_cast<std::size_t>(ty / kSupertileTiles) * superX_ + tx / kSupertileTiles];
    if (!st) return;
    auto& tile = st->tiles[(ty % kSupertileTiles) * kSupertileTiles + tx % kSupertileTiles];
    if (!tile) return;
    tile.reset();
    --presentTiles_;
    if (--st->present == 0) st.reset();
}

void KelTiledImageData::resetTiles(const Pixel& fill) {
    for (auto& st : supertiles_) st.reset();
    presentTiles_ = 0;
    fill_ = fill;
    std::fill(modified_.begin(), modified_.end(), uint8_t(1));
}

void KelTiledImageData::installTile(int tx, int ty, std::shared_ptr<ImageData> tile) {
    auto& st = supertiles_[static_cast<std::size_t>(ty / kSupertileTiles) * superX_ + tx / kSupertileTiles];
    if (!st) st = std::make_unique<Supertile>();
    auto& slot = st->tiles[(ty % kSupertileTiles) * kSupertileTiles + tx % kSupertileTiles];
    if (!slot) {
        ++st->present;
        ++presentTiles_;
    }
    slot = std::move(tile);
}

KelTiledImageData::Pixel KelTiledImageData::getPixel(int x, int y) const { return KelOps::getPixel(*this, x, y); }
void KelTiledImageData::setPixel(const Pixel& value, int x, int y) { KelOps::setPixel(*this, value, x, y); }
KelTiledImageData::ImageData::Ptr KelTiledImageData::readRect(_Rect<int> r) const { return KelOps::readRect(*this, r); }
void KelTiledImageData::writeRect(const ImageData& src, _Rect<int> srcRect, _Point<int> at) {
    KelOps::writeRect(*this, src, srcRect, at);
}
void KelTiledImageData::fillRoi(_Rect<int> r, const Pixel& value) { KelOps::fillRoi(*this, r, value); }
void KelTiledImageData::setFillWith(const Pixel& value) { resetTiles(value); }

bool KelTiledImageData::isTileModified(int index) const {
    return index >= 0 && static_cast<std::size_t>(index) < modified_.size() && modified_[index] != 0;
}

std::vector<int> KelTiledImageData::modifiedTiles() const {
    std::vector<int> out;
    for (std::size_t i = 0; i < modified_.size(); ++i)
        if (modified_[i]) out.push_back(static_cast<int>(i));
    return out;
}

void KelTiledImageData::clearModified() { std::fill(modified_.begin(), modified_.end(), uint8_t(0)); }

void KelTiledImageData::clearModified(int index) {
    if (index >= 0 && static_cast<std::size_t>(index) < modified_.size()) modified_[index] = 0;
}

void KelTiledImageData::blendWithTiledImageData(const KelTiledImageData& layer,
                                                 const std::shared_ptr<const _ImageData<float>>& mask, float opacity) {
    KelOps::blendWithTiledImageData(*this, layer, mask, opacity);
}

void KelTiledImageData::blendWithImageData(const std::shared_ptr<const ImageData>& image, const ResizeParameters& rp,
                                            const std::shared_ptr<const _ImageData<float>>& mask, float opacity) {
    KelOps::blendWithImageData(*this, image, rp, mask, opacity);
}

void KelTiledImageData::markAllModified() { std::fill(modified_.begin(), modified_.end(), uint8_t(1)); }

void KelTiledImageData::encode(const std::shared_ptr<Encoder>& encoder) const {
    if (!checkNotNull(encoder, KelOps::signature("void", "encode", "const class std::shared_ptr<class zorl::Encoder> &") + " const",
                      "Encoder is null"))
        return;
    KelOps::encodeHeader(*this, *encoder);
    profile_->encode(encoder);
    encoder->encodeInt(kTileSide);
    encoder->encodeInt(kSupertileTiles);
    std::vector<const ImageData*> tiles;
    std::vector<uint32_t> indices;
    for (int ty = 0; ty < tilesY_; ++ty)
        for (int tx = 0; tx < tilesX_; ++tx)
            if (const ImageData* t = tileAt(tx, ty)) {
                tiles.push_back(t);
                indices.push_back(static_cast<uint32_t>(ty * tilesX_ + tx));
            }
    const auto blocks = KelOps::compressTiles(tiles, to_colorProfileCode(profile_));
    encoder->encodeUint32(static_cast<uint32_t>(tiles.size()));
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        encoder->encodeUint32(indices[i]);
        encoder->encodeUint64(blocks[i].size());
        encoder->encodeData(blocks[i].data(), blocks[i].size());
    }
}

KelTiledImageData::Ptr KelTiledImageData::decode(const std::shared_ptr<Decoder>& decoder) {
    if (!checkNotNull(decoder, KelOps::decodeSignature(), "Decoder is null")) return nullptr;
    std::string message;
    std::unique_ptr<KelTiledImageData> s = KelOps::decodeHeader(decoder, message);
    int supertileSide = 0;
    uint32_t count = 0;
    if (s && (!decoder->decodeInt(supertileSide) || !decoder->decodeUint32(count))) {
        message = "Stream is truncated";
        s.reset();
    }
    if (s && supertileSide != kSupertileTiles) {
        message = "Supertile size differs";
        s.reset();
    }
    if (s && count > static_cast<uint32_t>(s->tilesX_ * s->tilesY_)) {
        message = "Tile count out of range";
        s.reset();
    }
    std::vector<KelOps::PendingTile> pending;
    int64_t previous = -1;
    for (uint32_t i = 0; s && i < count; ++i) {
        uint32_t index = 0;
        if (!decoder->decodeUint32(index)) {
            message = "Stream is truncated";
            s.reset();
        } else if (int64_t(index) <= previous || index >= static_cast<uint32_t>(s->tilesX_ * s->tilesY_)) {
            message = "Tile index out of order or out of range";
            s.reset();
        } else {
            previous = index;
            pending.push_back({int(index) % s->tilesX_, int(index) / s->tilesX_, {}});
            if (!KelOps::readBlock(decoder, pending.back().block, message)) s.reset();
        }
    }
    if (s && !KelOps::installTiles(*s, pending, message)) s.reset();
    if (!s) {
        logError(KelOps::decodeSignature(), message);
        return nullptr;
    }
    return Ptr(s.release());
}

}  // namespace zorl
