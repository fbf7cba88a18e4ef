#include <zorl/core/color_profile.h>

namespace zorl {

std::string ColorProfile::name() const {
    switch (kind_) {
        case Kind::None: return "None";
        case Kind::sRGB: return "sRGB";
        case Kind::sRGBLinear: return "sRGB linear";
        case Kind::ProPhotoRGB: return "ProPhoto RGB";
        case Kind::MelissaRGB: return "Melissa RGB";
    }
    return "unknown";
}

void ColorProfile::encode(const std::shared_ptr<Encoder>& encoder) const {
    encoder->encodeInt(static_cast<int>(kind_));
}

ColorProfilePtr ColorProfileType::fromKind(int32_t kind) {
    static const ColorProfilePtr profiles[] = {
        std::make_shared<ColorProfile>(ColorProfile::Kind::None),
        std::make_shared<ColorProfile>(ColorProfile::Kind::sRGB),
        std::make_shared<ColorProfile>(ColorProfile::Kind::sRGBLinear),
        std::make_shared<ColorProfile>(ColorProfile::Kind::ProPhotoRGB),
        std::make_shared<ColorProfile>(ColorProfile::Kind::MelissaRGB),
    };
    if (kind < 0 || kind >= static_cast<int32_t>(std::size(profiles))) return nullptr;
    return profiles[kind];
}

ColorProfilePtr ColorProfileType::None() { return fromKind(0); }
ColorProfilePtr ColorProfileType::sRGB() { return fromKind(1); }
ColorProfilePtr ColorProfileType::sRGBLinear() { return fromKind(2); }
ColorProfilePtr ColorProfileType::proPhotoRGB() { return fromKind(3); }
ColorProfilePtr ColorProfileType::melissaRGB() { return fromKind(4); }

ColorProfilePtr ColorProfileType::decode(const std::shared_ptr<Decoder>& decoder) {
    int kind = 0;
    if (!decoder || !decoder->decodeInt(kind)) return nullptr;
    return fromKind(kind);
}

bool sameProfile(const ColorProfilePtr& a, const ColorProfilePtr& b) {
    if (!a || !b) return !a && !b;
    return *a == *b;
}

}  // namespace zorl
