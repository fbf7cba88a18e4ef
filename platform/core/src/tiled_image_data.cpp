#include <zorl/core/tiled_image_data.h>

namespace zorl {

TiledImageData::TiledImageData(_Size<int> size, const Pixel& fill, ColorProfilePtr profile)
    : size_(size), fill_(fill), profile_(profile ? std::move(profile) : ColorProfileType::None()) {}

TiledImageData::~TiledImageData() = default;

int TiledImageData::tilesX() const {
    const int side = tileSide();
    return side > 0 ? (size_.width + side - 1) / side : 0;
}

int TiledImageData::tilesY() const {
    const int side = tileSide();
    return side > 0 ? (size_.height + side - 1) / side : 0;
}

_Rect<int> TiledImageData::getTileRect(int index) const {
    const int nx = tilesX();
    if (index < 0 || index >= tileCount()) return kEmptyRect;
    const int side = tileSide();
    const _Rect<int> tile{(index % nx) * side, (index / nx) * side, side, side};
    return tile.intersection(rect());
}

}  // namespace zorl
