#pragma once
// Colour space descriptions. A ColorProfile is immutable and shared by pointer; two
// profiles are equal when they describe the same space. The factories of
// ColorProfileType return one shared instance per space.

#include <memory>
#include <string>

#include <zorl/core/codec.h>
#include <zorl/core/export.h>

namespace zorl {

class ZORL_CORE_EXPORT ColorProfile {
public:
    // The spaces the library knows. Values are stored in serialised profiles.
    enum class Kind : int32_t {
        None = 0,        // untagged data, treated as sRGB where a space is needed
        sRGB = 1,        // sRGB primaries, D65 white, sRGB tone curve
        sRGBLinear = 2,  // sRGB primaries, D65 white, linear
        ProPhotoRGB = 3, // ProPhoto primaries, D50 white, gamma 1.8
        MelissaRGB = 4,  // ProPhoto primaries, D50 white, sRGB tone curve
    };

    explicit ColorProfile(Kind kind) : kind_(kind) {}

    Kind kind() const { return kind_; }
    std::string name() const;

    bool operator==(const ColorProfile& o) const { return kind_ == o.kind_; }
    bool operator!=(const ColorProfile& o) const { return !(*this == o); }

    // Writes the profile as one int (its kind).
    void encode(const std::shared_ptr<Encoder>& encoder) const;

private:
    Kind kind_;
};

using ColorProfilePtr = std::shared_ptr<ColorProfile>;

struct ZORL_CORE_EXPORT ColorProfileType {
    static ColorProfilePtr None();
    static ColorProfilePtr sRGB();
    static ColorProfilePtr sRGBLinear();
    static ColorProfilePtr proPhotoRGB();
    static ColorProfilePtr melissaRGB();
    // The shared instance of a kind, or null for a value that is not a Kind.
    static ColorProfilePtr fromKind(int32_t kind);
    // Reads what ColorProfile::encode wrote; null when the stream is exhausted or the
    // stored kind is unknown.
    static ColorProfilePtr decode(const std::shared_ptr<Decoder>& decoder);
};

// Equality of two profile pointers by value; two null pointers are equal.
ZORL_CORE_EXPORT bool sameProfile(const ColorProfilePtr& a, const ColorProfilePtr& b);

}  // namespace zorl
