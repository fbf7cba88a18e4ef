// BarcTiledImageData: the older scheme, 256 x 256 tiles in one flat row-major grid of
// tile pointers. No modified flags.

#include <imageprocessing/tiled_image_data_stores.h>

#include "storage/tiled_image_data_ops.h"

namespace zorl {

using BarcOps = detail::TiledStoreOps<BarcTiledImageData>;

BarcTiledImageData::BarcTiledImageData(_Size<int> size, const Pixel& fill, ColorProfilePtr profile)
    : TiledImageData(BarcOps::checkedSize(size), fill, std::move(profile)) {
    tilesX_ = (size_.width + kTileSide - 1) / kTileSide;
    tilesY_ = (size_.height + kTileSide - 1) / kTileSide;
    tiles_.resize(static_cast<std::size_t>(tilesX_) * tilesY_);
}

BarcTiledImageData::BarcTiledImageData(const BarcTiledImageData& other)
    : TiledImageData(other),
      tilesX_(other.tilesX_),
      tilesY_(other.tilesY_),
      presentTiles_(other.presentTiles_),
      tiles_(other.tiles_.size()) {
    for (std::size_t i = 0; i < tiles_.size(); ++i)
        if (other.tiles_[i]) tiles_[i] = std::make_shared<ImageData>(*other.tiles_[i]);
}

BarcTiledImageData& BarcTiledImageData::operator=(const BarcTiledImageData& other) {
    if (this != &other) {
        BarcTiledImageData copy(other);
        TiledImageData::operator=(copy);
        tilesX_ = copy.tilesX_;
        tilesY_ = copy.tilesY_;
        presentTiles_ = copy.presentTiles_;
        tiles_ = std::move(copy.tiles_);
    }
    return *this;
}

BarcTiledImageData::~BarcTiledImageData() = default;

bool BarcTiledImageData::hasTile(int index) const {
    return index >= 0 && static_cast<std::size_t>(index) < tiles_.size() && tiles_[index] != nullptr;
}

const BarcTiledImageData::Pixel* BarcTiledImageData::tilePixels(int tx, int ty) const {
    if (tx < 0 || ty < 0 || tx >= tilesX_ || ty >= tilesY_) return nullptr;
    const ImageData* t = tileAt(tx, ty);
    return t ? t->data() : nullptr;
}

uint64_t BarcTiledImageData::heldBytes() const {
    return uint64_t(presentTiles_) * BarcOps::kTileBytes + tiles_.capacity() * sizeof(tiles_[0]);
}

const std::shared_ptr<BarcTiledImageData::ImageData>& BarcTiledImageData::touchTile(int tx, int ty) {
    auto& tile = tiles_[static_cast<std::size_t>(ty) * tilesX_ + tx];
    if (!tile) {
        tile = BarcOps::newTile(*this);
        ++presentTiles_;
    }
    return tile;
}

void BarcTiledImageData::releaseTile(int tx, int ty) {
    auto& tile = tiles_[static_cast<std::size_t>(ty) * tilesX_ + tx];
    if (tile) {
        tile.reset();
        --presentTiles_;
    }
}

void BarcTiledImageData::resetTiles(const Pixel& fill) {
    for (auto& t : tiles_) t.reset();
    presentTiles_ = 0;
    fill_ = fill;
}

void BarcTiledImageData::installTile(int tx, int ty, std::shared_ptr<ImageData> tile) {
    auto& slot = tiles_[static_cast<std::size_t>(ty) * tilesX_ + tx];
    if (!slot) ++presentTiles_;
    slot = std::move(tile);
}

BarcTiledImageData::Pixel BarcTiledImageData::getPixel(int x, int y) const { return BarcOps::getPixel(*this, x, y); }
void BarcTiledImageData::setPixel(const Pixel& value, int x, int y) { BarcOps::setPixel(*this, value, x, y); }
BarcTiledImageData::ImageData::Ptr BarcTiledImageData::readRect(_Rect<int> r) const { return BarcOps::readRect(*this, r); }
void BarcTiledImageData::writeRect(const ImageData& src, _Rect<int> srcRect, _Point<int> at) {
    BarcOps::writeRect(*this, src, srcRect, at);
}
void BarcTiledImageData::fillRoi(_Rect<int> r, const Pixel& value) { BarcOps::fillRoi(*this, r, value); }
void BarcTiledImageData::setFillWith(const Pixel& value) { resetTiles(value); }

void BarcTiledImageData::blendWithTiledImageData(const BarcTiledImageData& layer,
                                                 const std::shared_ptr<const _ImageData<float>>& mask, float opacity) {
    BarcOps::blendWithTiledImageData(*this, layer, mask, opacity);
}

void BarcTiledImageData::blendWithImageData(const std::shared_ptr<const ImageData>& image, const ResizeParameters& rp,
                                            const std::shared_ptr<const _ImageData<float>>& mask, float opacity) {
    BarcOps::blendWithImageData(*this, image, rp, mask, opacity);
}

void BarcTiledImageData::encode(const std::shared_ptr<Encoder>& encoder) const {
    if (!checkNotNull(encoder, BarcOps::signature("void", "encode", "const class std::shared_ptr<class zorl::Encoder> &") + " const",
                      "Encoder is null"))
        return;
    BarcOps::encodeHeader(*this, *encoder);
    profile_->encode(encoder);
    encoder->encodeInt(kTileSide);
    std::vector<const ImageData*> present;
    for (const auto& t : tiles_)
        if (t) present.push_back(t.get());
    const auto blocks = BarcOps::compressTiles(present, to_colorProfileCode(profile_));
    std::size_t next = 0;
    for (const auto& t : tiles_) {
        encoder->encodeUint8(t ? 1 : 0);
        if (!t) continue;
        encoder->encodeUint64(blocks[next].size());
        encoder->encodeData(blocks[next].data(), blocks[next].size());
        ++next;
    }
}

BarcTiledImageData::Ptr BarcTiledImageData::decode(const std::shared_ptr<Decoder>& decoder) {
    if (!checkNotNull(decoder, BarcOps::decodeSignature(), "Decoder is null")) return nullptr;
    std::string message;
    std::unique_ptr<BarcTiledImageData> s = BarcOps::decodeHeader(decoder, message);
    std::vector<BarcOps::PendingTile> pending;
    const int count = s ? s->tilesX_ * s->tilesY_ : 0;
    for (int i = 0; s && i < count; ++i) {
        uint8_t flag = 0;
        if (!decoder->decodeUint8(flag)) {
            message = "Stream is truncated";
            s.reset();
        } else if (flag > 1) {
            message = "Tile flag out of range";
            s.reset();
        } else if (flag == 1) {
            pending.push_back({i % s->tilesX_, i / s->tilesX_, {}});
            if (!BarcOps::readBlock(decoder, pending.back().block, message)) s.reset();
        }
    }
    if (s && !BarcOps::installTiles(*s, pending, message)) s.reset();
    if (!s) {
        logError(BarcOps::decodeSignature(), message);
        return nullptr;
    }
    return Ptr(s.release());
}

}  // namespace zorl
