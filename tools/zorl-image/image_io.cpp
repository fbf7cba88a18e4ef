// Image files through Magick++. Pixels cross into the library as float RGB in 0..1; on
// the way out the library's own float-to-integer rule (floatToIntImageData) makes the
// 8- or 16-bit samples, so that files and library agree to the last bit.

#include "image_io.h"

#include "contact_sheet.h"

#include <Magick++.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <system_error>
#include <unistd.h>

#include <imageprocessing/conversion.h>

namespace zorl::cli {
namespace fs = std::filesystem;

namespace {

std::string lowerExtension(const fs::path& path) {
    std::string ext = path.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    return ext;
}

// The Magick++ format name of a file we can write, from its extension.
std::string formatFor(const fs::path& path) {
    const std::string ext = lowerExtension(path);
    if (ext == ".png") return "PNG";
    if (ext == ".jpg" || ext == ".jpeg") return "JPEG";
    if (ext == ".tif" || ext == ".tiff") return "TIFF";
    throw UsageError("cannot write " + path.string() + ": unknown image format '" + ext + "' (use .png, .jpg or .tif)");
}

// A Magick++ message without its client-name prefix ("zorl-image: ") and its source
// location suffix (" @ error/png.c/ReadPNGImage/4110"), on one line.
std::string oneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    if (const auto at = text.find(" @ "); at != std::string::npos) text.erase(at);
    if (text.rfind("zorl-image: ", 0) == 0) text.erase(0, 12);
    return text;
}

Magick::Image readMagick(const fs::path& path) {
    std::error_code ec;
    if (!fs::exists(path, ec)) throw UsageError("cannot read " + path.string() + ": no such file");
    if (fs::is_directory(path, ec)) throw UsageError("cannot read " + path.string() + ": it is a directory");
    Magick::Image image;
    image.quiet(true);  // warnings (unknown TIFF tags, say) are not failures
    try {
        image.read(path.string());
    } catch (const Magick::Error& e) {
        throw UsageError("cannot read " + path.string() + ": " + oneLine(e.what()));
    }
    if (image.columns() == 0 || image.rows() == 0) throw UsageError("cannot read " + path.string() + ": empty image");
    return image;
}

void checkDepth(int depth) {
    if (depth != 8 && depth != 16) throw UsageError("bit depth must be 8 or 16, got " + std::to_string(depth));
}

// The library's float -> integer rule for one gray sample.
template <class T>
T toInt(float v) {
    constexpr float kMax = float(std::numeric_limits<T>::max());
    return static_cast<T>(std::min(1.0f, v > 0.0f ? v : 0.0f) * kMax);
}

}  // namespace

// The temporary name a file is written under before it is renamed into place: hidden,
// in the same folder (so the rename is atomic), unique to this process.
fs::path partialPath(const fs::path& path) {
    std::string name = ".";
    name += path.filename().string();
    name += ".partial-";
    name += std::to_string(::getpid());
    return (path.has_parent_path() ? path.parent_path() : fs::path(".")) / name;
}

// Writes through a temporary file in the same folder, renamed into place when complete.
void writeMagick(Magick::Image& image, const fs::path& path) {
    const std::string format = formatFor(path);
    const fs::path folder = path.has_parent_path() ? path.parent_path() : fs::path(".");
    std::error_code ec;
    if (!fs::is_directory(folder, ec)) throw UsageError("cannot write " + path.string() + ": no folder " + folder.string());
    const fs::path temp = partialPath(path);
    try {
        image.magick(format);
        image.write(format + ":" + temp.string());
    } catch (const Magick::Error& e) {
        fs::remove(temp, ec);
        throw UsageError("cannot write " + path.string() + ": " + oneLine(e.what()));
    }
    fs::rename(temp, path, ec);
    if (ec) {
        fs::remove(temp, ec);
        throw UsageError("cannot write " + path.string() + ": " + ec.message());
    }
}

void writeTextFile(const fs::path& path, const std::string& text) {
    const fs::path temp = partialPath(path);
    std::error_code ec;
    {
        std::ofstream out(temp, std::ios::binary);
        out << text;
        if (!out.flush()) {
            fs::remove(temp, ec);
            throw UsageError("cannot write " + path.string());
        }
    }
    fs::rename(temp, path, ec);
    if (ec) {
        fs::remove(temp, ec);
        throw UsageError("cannot write " + path.string() + ": " + ec.message());
    }
}

RgbImagePtr readImageRGB(const fs::path& path) {
    Magick::Image image = readMagick(path);
    auto out = std::make_shared<RgbImage>(_Size<int>(int(image.columns()), int(image.rows())), ColorProfileType::sRGB());
    // Gray files come back with r = g = b; an alpha channel is dropped.
    image.write(0, 0, image.columns(), image.rows(), "RGB", Magick::FloatPixel, out->data());
    return out;
}

std::shared_ptr<MaskImage> readMask(const fs::path& path) {
    Magick::Image image = readMagick(path);
    auto out = std::make_shared<MaskImage>(_Size<int>(int(image.columns()), int(image.rows())), 0.0f);
    image.write(0, 0, image.columns(), image.rows(), "I", Magick::FloatPixel, out->data());
    return out;
}

Magick::Image toMagick(const RgbImage& image, int depth) {
    checkDepth(depth);
    const auto w = std::size_t(image.width()), h = std::size_t(image.height());
    // The library converts; an alias without ownership hands it the caller's image.
    std::shared_ptr<const RgbImage> view(std::shared_ptr<const RgbImage>(), &image);
    Magick::Image out;
    if (depth == 8) {
        const auto bytes = floatToIntImageData<uint8_t>(view);
        if (!bytes) throw std::runtime_error("8-bit conversion failed");
        out = Magick::Image(w, h, "RGB", Magick::CharPixel, bytes->data());
    } else {
        const auto shorts = floatToIntImageData<uint16_t>(view);
        if (!shorts) throw std::runtime_error("16-bit conversion failed");
        out = Magick::Image(w, h, "RGB", Magick::ShortPixel, shorts->data());
    }
    out.depth(depth);
    return out;
}

void writeImageRGB(const fs::path& path, const RgbImage& image, int depth) {
    formatFor(path);
    Magick::Image out = toMagick(image, depth);
    writeMagick(out, path);
}

void writeImageGray(const fs::path& path, const _ImageData<float>& image, int depth) {
    formatFor(path);
    checkDepth(depth);
    const auto w = std::size_t(image.width()), h = std::size_t(image.height());
    Magick::Image out;
    if (depth == 8) {
        std::vector<uint8_t> px(image.pixelCount());
        std::transform(image.data(), image.data() + px.size(), px.begin(), toInt<uint8_t>);
        out = Magick::Image(w, h, "I", Magick::CharPixel, px.data());
    } else {
        std::vector<uint16_t> px(image.pixelCount());
        std::transform(image.data(), image.data() + px.size(), px.begin(), toInt<uint16_t>);
        out = Magick::Image(w, h, "I", Magick::ShortPixel, px.data());
    }
    out.type(Magick::GrayscaleType);
    out.depth(depth);
    writeMagick(out, path);
}

namespace {
// The stand-in when Magick++ has no built-in picture: smooth colour ramps, a few hard
// edges and fine stripes, the features the filters and blends have something to do with.
RgbImagePtr generatedPhoto() {
    constexpr int kW = 640, kH = 480;
    auto img = std::make_shared<RgbImage>(_Size<int>(kW, kH), ColorProfileType::sRGB());
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) {
            const float u = x / float(kW - 1), v = y / float(kH - 1);
            PixelRGB<float> p{u, 0.5f + 0.5f * std::sin(6.0f * v), 1.0f - 0.7f * u * v};
            const float dx = x - 420.0f, dy = y - 220.0f;
            if (dx * dx + dy * dy < 110.0f * 110.0f) p = {0.9f, 0.75f, 0.2f};  // a disc
            if (x > 60 && x < 240 && y > 300 && y < 420) p = {(x / 4) % 2 ? 0.1f : 0.9f, 0.2f, 0.3f};  // stripes
            img->at(x, y) = p;
        }
    return img;
}
}  // namespace

RgbImagePtr builtinPhoto() {
    try {
        Magick::Image logo;
        logo.quiet(true);
        logo.read("logo:");
        if (logo.columns() > 0 && logo.rows() > 0) {
            auto out = std::make_shared<RgbImage>(_Size<int>(int(logo.columns()), int(logo.rows())),
                                                  ColorProfileType::sRGB());
            logo.write(0, 0, logo.columns(), logo.rows(), "RGB", Magick::FloatPixel, out->data());
            return out;
        }
    } catch (const Magick::Exception&) {
        // A build of Magick++ without its built-in pictures: use the generated one.
    }
    return generatedPhoto();
}

}  // namespace zorl::cli
