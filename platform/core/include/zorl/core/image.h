#pragma once
// The document image as the image library sees it: BaseImage (size, profile, status,
// metadata) and Image (its pixel data in the forms the compute units read).
//
// The editor's own pipelines (raw development, denoising, chromatic-aberration
// correction, metadata reading) live outside these libraries. Here they are simple,
// documented stand-ins, chosen so that every kind of data an Image hands out can be
// told apart in a test:
//   imageData               the modified pixels (getModifiedImageData), initially the
//                           original;
//   originalImageData       the original pixels;
//   developedOriginalImageData
//                           the original times kDevelopGain per channel ("development"
//                           at a fixed -1 EV);
//   getDenoiseResultDataWithCA
//                           first:  the original, 3 x 3 box mean with edge pixels
//                                   repeated ("denoised");
//                           second: that box mean times kDevelopGain ("denoised and
//                                   developed, aberration-corrected").
// Every accessor answers the request `rp`: the region rp.rect of the full-size data
// (whole image when empty) at rp.size (full size when empty), resized with
// _ImageData::resize(rp.size, rp.rect, rp.resizeFlag); a request for the whole image at
// full size returns the data itself, shared and read-only.

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <zorl/core/color_profile.h>
#include <zorl/core/export.h>
#include <zorl/core/geometry.h>
#include <zorl/core/image_data.h>
#include <zorl/core/image_transform_settings.h>
#include <zorl/core/pixel.h>

namespace zorl {

// Lens distortion correction chosen for a document.
enum class DistortionCorrectionType : int32_t { None = 0, Profile = 1, Manual = 2 };

// Facts about a document that its pipelines record.
struct ImageMetadata {
    // The document's current pixels already contain the denoised result...
    bool denoiseApplied = false;
    // ...and that result matches the current denoise settings. With both set, the
    // denoised data is read as plain image data.
    bool denoiseUpToDate = false;
    DistortionCorrectionType distortionCorrection = DistortionCorrectionType::None;
};

// Settings of the raw denoiser (stand-in: recorded, not used by the box mean).
struct DenoiseRaw {
    struct params_t {
        float luminanceStrength = 0.5f;
        float colorStrength = 0.5f;
        bool operator==(const params_t&) const = default;
    };
};

// The two images a denoise run yields (see the top of this file).
struct DenoisedResult {
    std::shared_ptr<_ImageData<PixelRGB<float>>> first;
    std::shared_ptr<_ImageData<PixelRGB<float>>> second;
};

// A camera colour profile as raw development reads it (stand-in: a name and an
// optional hue/saturation table of float triples).
class ZORL_CORE_EXPORT DCPData {
public:
    DCPData(std::string profileName, std::shared_ptr<const std::vector<float>> hueSatMap)
        : profileName_(std::move(profileName)), hueSatMap_(std::move(hueSatMap)) {}
    const std::string& profile() const { return profileName_; }
    // Null when the profile has no hue/saturation map.
    std::shared_ptr<const std::vector<float>> hueSatMapPtr() const { return hueSatMap_; }

private:
    std::string profileName_;
    std::shared_ptr<const std::vector<float>> hueSatMap_;
};

// Lens correction profiles; only the lookup key is used here.
struct LensProfile {
    struct SearchParams {
        std::string cameraModel;
        std::string lensModel;
        float focalLength = 0.0f;
        float aperture = 0.0f;
        bool operator==(const SearchParams&) const = default;
    };
};

class ZORL_CORE_EXPORT BaseImage {
public:
    enum class Status : int32_t { Empty = 0, Loaded = 1, Failed = 2 };

    // An image over the given original pixels (Loaded), or Empty when null.
    explicit BaseImage(std::shared_ptr<const _ImageData<PixelRGB<float>>> original);
    virtual ~BaseImage();

    ColorProfilePtr colorProfile() const;
    _Size<int> size() const;
    _Rect<int> rect() const { return {0, 0, size().width, size().height}; }
    Status status() const { return status_; }
    const ImageMetadata& metadata() const { return metadata_; }
    void setMetadata(const ImageMetadata& metadata) { metadata_ = metadata; }
    DistortionCorrectionType distortionCorrectionType() const { return metadata_.distortionCorrection; }

protected:
    std::shared_ptr<const _ImageData<PixelRGB<float>>> original_;
    Status status_;
    ImageMetadata metadata_;
};

class ZORL_CORE_EXPORT Image : public BaseImage {
public:
    using Data = _ImageData<PixelRGB<float>>;
    using DataPtr = std::shared_ptr<Data>;
    // Called with the changed rectangle (image pixels) after the modified data changed.
    using Listener = std::function<void(const _Rect<int>&)>;

    // Stand-in gain of "development".
    static constexpr float kDevelopGain = 0.5f;

    explicit Image(std::shared_ptr<const Data> original);
    ~Image() override;

    // The current (edited) pixels at full size; the caller may write into them and then
    // call notifyModified. Null for an Empty image.
    DataPtr getModifiedImageData() const { return modified_; }
    void notifyModified(const _Rect<int>& rect) const;
    void setUpdateCallback(Listener listener) { listener_ = std::move(listener); }

    // The kinds of data of the top of this file, each for the request (size, rect,
    // resizeFlag). Null for an Empty image or an empty request region.
    std::shared_ptr<const Data> imageData(_Size<int> size, _Rect<int> rect, bool resizeFlag) const;
    std::shared_ptr<const Data> originalImageData(const ResizeParameters& rp) const;
    std::shared_ptr<const Data> developedOriginalImageData(const ResizeParameters& rp) const;
    DenoisedResult getDenoiseResultDataWithCA(const ResizeParameters& rp, const DenoiseRaw::params_t& params,
                                              bool cancelable) const;

private:
    DataPtr modified_;
    Listener listener_;
    // Full-size results of the stand-in pipelines, made on first use under the lock
    // (several compute units may read one image at once).
    mutable std::mutex cacheMutex_;
    mutable std::shared_ptr<const Data> developed_;
    mutable std::shared_ptr<const Data> denoised_;
};

}  // namespace zorl
