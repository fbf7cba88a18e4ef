// Blend modes and auto exposure on the command line: the subcommands `blend` and
// `autoexpose`; demo step 400, the fourteen blend modes of one colour layer over the
// photo as a labelled grid, and demo step 410, an under-exposed photo corrected.

#include <imageprocessing/auto_exposure.h>
#include <imageprocessing/blending.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "image_io.h"
#include "registry.h"

namespace zorl::cli {
namespace {

const char* const kBlendUsage = "blend LAYER BASE OUT --mode NAME [--opacity A] [--mask M] [--roi X,Y,W,H]";
// T: a target image of the same size, or a mean brightness in 0..1 (reached by a power
// curve); without it, the input stretched so that its bright end reaches 0.98.
const char* const kAutoUsage = "autoexpose IN OUT [--target T]";

struct ModeName {
    const char* name;
    BlendModeType mode;
};
constexpr std::array<ModeName, 14> kModes = {{{"Normal", BlendModeType::Normal},
                                              {"Multiply", BlendModeType::Multiply},
                                              {"ColorBurn", BlendModeType::ColorBurn},
                                              {"Screen", BlendModeType::Screen},
                                              {"Overlay", BlendModeType::Overlay},
                                              {"SoftLight", BlendModeType::SoftLight},
                                              {"Darken", BlendModeType::Darken},
                                              {"HardLight", BlendModeType::HardLight},
                                              {"Lighten", BlendModeType::Lighten},
                                              {"Difference", BlendModeType::Difference},
                                              {"Subtract", BlendModeType::Subtract},
                                              {"Luminosity", BlendModeType::Luminosity},
                                              {"Hue", BlendModeType::Hue},
                                              {"Color", BlendModeType::Color}}};

std::string fixed(double v, int decimals) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
    return buf;
}

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return s;
}

BlendModeType parseMode(const std::string& text) {
    for (const ModeName& m : kModes)
        if (lower(text) == lower(m.name)) return m.mode;
    std::string names;
    for (const ModeName& m : kModes) names += std::string(names.empty() ? "" : ", ") + m.name;
    throw UsageError("unknown blend mode '" + text + "' (one of " + names + ")");
}

_Rect<int> parseRoi(const std::string& text) {
    _Rect<int> r;
    char c1 = 0, c2 = 0, c3 = 0;
    std::istringstream in(text);
    if (!(in >> r.x >> c1 >> r.y >> c2 >> r.width >> c3 >> r.height) || c1 != ',' || c2 != ',' || c3 != ',' ||
        !(in >> std::ws).eof() || r.width <= 0 || r.height <= 0)
        throw UsageError("--roi takes X,Y,W,H with a positive width and height, got '" + text + "'");
    return r;
}

void rejectUnknownOptions(const Args& args, const std::set<std::string>& known, const char* usage) {
    for (const auto& [name, value] : args.options)
        if (!known.count(name)) throw UsageError("unknown option --" + name + " (usage: zorl-image " + usage + ")");
}

// Blends layer over base into a new image; returns milliseconds.
RgbImagePtr blended(const std::shared_ptr<const RgbImage>& layer, const std::shared_ptr<const RgbImage>& base,
                    const std::shared_ptr<const _ImageData<float>>& mask, float opacity, BlendModeType mode,
                    _Rect<int> roi, double* ms = nullptr) {
    RgbImagePtr result;
    if (roi != kNoRegion) result = std::make_shared<RgbImage>(*base);  // outside the region: the base
    const auto start = std::chrono::steady_clock::now();
    blendImages(layer, base, result, mask, opacity, mode, roi);
    if (ms) *ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    if (!result) throw std::runtime_error("blending produced no image");
    return result;
}

int runBlend(const std::vector<std::string>& words) {
    const Args args = parseArgs(words);
    args.expectPositional(3, 3, kBlendUsage);
    rejectUnknownOptions(args, {"mode", "opacity", "mask", "roi"}, kBlendUsage);
    if (!args.has("mode")) throw UsageError(std::string("--mode is required (usage: zorl-image ") + kBlendUsage + ")");
    const BlendModeType mode = parseMode(args.get("mode"));
    const float opacity = float(args.number("opacity", 1.0));
    if (!std::isfinite(opacity)) throw UsageError("--opacity must be a finite number");
    const _Rect<int> roi = args.has("roi") ? parseRoi(args.get("roi")) : kNoRegion;

    const RgbImagePtr layer = readImageRGB(args.positional[0]);
    const RgbImagePtr base = readImageRGB(args.positional[1]);
    if (layer->size() != base->size()) throw UsageError("LAYER and BASE must have the same size");
    std::shared_ptr<const _ImageData<float>> mask;
    if (args.has("mask")) {
        mask = readMask(args.get("mask"));
        if (mask->size() != layer->size()) throw UsageError("the mask must have the size of the images");
    }
    if (roi != kNoRegion && roi.intersection(layer->rect()).isEmpty())
        throw UsageError("--roi lies outside the image");
    double ms = 0;
    const RgbImagePtr out = blended(layer, base, mask, opacity, mode, roi, &ms);
    writeImageRGB(args.positional[2], *out, 16);
    std::cout << args.positional[2] << ": " << layer->width() << " x " << layer->height() << ", mode "
              << kModes[std::size_t(mode)].name << ", opacity " << opacity << (mask ? ", masked" : "")
              << (roi != kNoRegion ? ", region " + std::to_string(roi.x) + "," + std::to_string(roi.y) + "," +
                                         std::to_string(roi.width) + "," + std::to_string(roi.height)
                                   : std::string())
              << ", " << fixed(ms, 1) << " ms\n";
    return 0;
}

// ---- auto exposure ---------------------------------------------------------------------

float* channels(RgbImage& image) { return &image.data()->r; }

double meanLuminance(const RgbImage& image) {
    double sum = 0;
    for (std::size_t i = 0; i < image.pixelCount(); ++i) {
        const auto& p = image.data()[i];
        sum += 0.299 * p.r + 0.587 * p.g + 0.114 * p.b;
    }
    return image.pixelCount() ? sum / double(image.pixelCount()) : 0.0;
}

double rmsDifference(const RgbImage& a, const RgbImage& b) {
    const float* p = &a.data()->r;
    const float* q = &b.data()->r;
    double sum = 0;
    const std::size_t n = a.pixelCount() * 3;
    for (std::size_t i = 0; i < n; ++i) sum += (double(p[i]) - q[i]) * (double(p[i]) - q[i]);
    return n ? std::sqrt(sum / double(n)) : 0.0;
}

// The target the estimator fits when the caller gives none: the image under a power
// curve x^gamma per channel, gamma chosen (by bisection) so that the mean luminance
// becomes `level`.
RgbImagePtr gammaTarget(const RgbImage& src, double level) {
    const auto curved = [&](double gamma) {
        auto out = std::make_shared<RgbImage>(src);
        float* v = channels(*out);
        for (std::size_t i = 0; i < src.pixelCount() * 3; ++i) v[i] = float(std::pow(std::clamp(double(v[i]), 0.0, 1.0), gamma));
        return out;
    };
    double lo = 0.1, hi = 10.0;  // the mean falls as gamma grows
    for (int i = 0; i < 30; ++i) {
        const double mid = std::sqrt(lo * hi);
        (meanLuminance(*curved(mid)) > level ? lo : hi) = mid;
    }
    return curved(std::sqrt(lo * hi));
}

// The target when the caller gives none: the image stretched so that its bright end
// (the 99.5th percentile of all channel values) lands at 0.98, clipped to 0..1: an
// exposure correction that keeps the image's own key, light or dark.
RgbImagePtr stretchTarget(const RgbImage& src) {
    constexpr double kBrightQuantile = 0.995;
    constexpr float kBrightLevel = 0.98f;
    const float* v = &src.data()->r;
    std::vector<float> values(v, v + src.pixelCount() * 3);
    if (values.empty()) return std::make_shared<RgbImage>(src);
    const auto at = values.begin() + std::ptrdiff_t(kBrightQuantile * double(values.size() - 1));
    std::nth_element(values.begin(), at, values.end());
    const float factor = *at > 0.0f ? kBrightLevel / *at : 1.0f;
    auto out = std::make_shared<RgbImage>(src);
    float* o = channels(*out);
    for (std::size_t i = 0; i < values.size(); ++i) o[i] = std::clamp(o[i] * factor, 0.0f, 1.0f);
    return out;
}

struct Corrected {
    RgbImagePtr image;
    auto_exposure_data_t record;
    double ms;
};

// Fits a record so that src approaches target, and applies it to src.
Corrected correct(const RgbImage& src, const RgbImage& target) {
    RgbImage source(src);
    Corrected c{std::make_shared<RgbImage>(target), {}, 0};
    const auto start = std::chrono::steady_clock::now();
    autoExposureEstimateRGB(channels(source), channels(*c.image), src.width(), src.height(), &c.record, 7);
    autoExposureApplyRGB(channels(source), channels(*c.image), src.width(), src.height(), &c.record);
    c.ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    return c;
}

std::string recordText(const auto_exposure_data_t& d) {
    return "gain " + fixed(d.gain, 4) + ", scale " + fixed(d.scale, 4) + ", offset " + fixed(d.offset, 4) +
           ", contrast " + fixed(d.contrast, 4);
}


int runAutoExpose(const std::vector<std::string>& words) {
    const Args args = parseArgs(words);
    args.expectPositional(2, 2, kAutoUsage);
    rejectUnknownOptions(args, {"target"}, kAutoUsage);
    const RgbImagePtr src = readImageRGB(args.positional[0]);
    RgbImagePtr target;
    std::string targetText;
    const std::string t = args.get("target");
    if (args.has("target") && std::filesystem::exists(t)) {
        target = readImageRGB(t);
        if (target->size() != src->size()) throw UsageError("the target must have the size of the input");
        targetText = "target " + t;
    } else if (args.has("target")) {
        const double level = args.number("target", 0.0);
        if (!(level > 0.0 && level < 1.0))
            throw UsageError("--target takes an image file or a mean brightness between 0 and 1");
        target = gammaTarget(*src, level);
        targetText = "target mean brightness " + fixed(level, 3);
    } else {
        target = stretchTarget(*src);
        targetText = "target: stretched to its bright end";
    }
    const Corrected c = correct(*src, *target);
    writeImageRGB(args.positional[1], *c.image, 16);
    std::cout << args.positional[1] << ": " << src->width() << " x " << src->height() << ", " << targetText << ", "
              << recordText(c.record) << ", RMS to target " << fixed(rmsDifference(*c.image, *target), 4)
              << ", mean brightness " << fixed(meanLuminance(*src), 3) << " -> " << fixed(meanLuminance(*c.image), 3)
              << ", " << fixed(c.ms, 1) << " ms\n";
    return 0;
}

// ---- demo ---------------------------------------------------------------------------------

// A colour layer for the grid: hue sweeps across, brightness falls from top to bottom,
// with a grey band in the middle (no hue: Hue mode keeps only the base's brightness).
RgbImagePtr colourLayer(_Size<int> size, const ColorProfilePtr& profile) {
    auto layer = std::make_shared<RgbImage>(size, profile);
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x) {
            const float h = 6.0f * float(x) / float(size.width);
            const float v = 1.0f - 0.8f * float(y) / float(size.height);
            const bool grey = std::abs(y - size.height / 2) < size.height / 16;
            const float s = grey ? 0.0f : 0.85f;
            const int i = int(h) % 6;
            const float f = h - std::floor(h), p = v * (1 - s), q = v * (1 - s * f), t = v * (1 - s * (1 - f));
            const PixelRGB<float> table[6] = {{v, t, p}, {q, v, p}, {p, v, t}, {p, q, v}, {t, p, v}, {v, p, q}};
            layer->at(x, y) = table[i];
        }
    return layer;
}

void demoBlend(DemoContext& ctx) {
    const auto base = ctx.photo();
    const std::shared_ptr<const RgbImage> layer = colourLayer(base->size(), base->colorProfile());
    ctx.addRow("Blend modes: the colour layer (top) over the photo (base), full opacity",
               {{"layer", layer}, {"base", base}});
    std::vector<SheetCell> row;
    double totalMs = 0;
    for (const ModeName& m : kModes) {
        double ms = 0;
        const RgbImagePtr out = blended(layer, base, nullptr, 1.0f, m.mode, kNoRegion, &ms);
        totalMs += ms;
        ctx.report("  " + std::string(m.name) + ": " + fixed(ms, 1) + " ms");
        row.push_back({m.name, out});
        if (row.size() == 5 || &m == &kModes.back()) {
            const std::string title = row.front().label + " .. " + row.back().label;
            ctx.addRow(title, row);
            row.clear();
        }
    }
    // The region and mask rules: Normal at 0.8 through a left-to-right ramp mask, inside
    // the middle of the picture only.
    auto mask = std::make_shared<_ImageData<float>>(base->size(), base->colorProfile());
    for (int y = 0; y < base->height(); ++y)
        for (int x = 0; x < base->width(); ++x) mask->at(x, y) = float(x) / float(base->width());
    const _Rect<int> roi = base->rect().inset(base->width() / 4, base->height() / 4);
    const RgbImagePtr masked = blended(layer, base, mask, 0.8f, BlendModeType::Normal, roi);
    ctx.addRow("Normal at opacity 0.8 through a ramp mask, in the middle region only", {{"masked region", masked}});
    writeImageRGB(ctx.outDir() / "blend-overlay.png", *blended(layer, base, nullptr, 1.0f, BlendModeType::Overlay, kNoRegion), 8);
    ctx.report("  all fourteen modes: " + fixed(totalMs, 1) + " ms");
}

void demoAutoExposure(DemoContext& ctx) {
    const auto photo = ctx.photo();
    // Under-exposed: the photo with the exposure gain at 0.55.
    const auto_exposure_data_t darken{0.55f, 0.9f, 0.5f, 0.5f};
    auto dark = std::make_shared<RgbImage>(*photo);
    {
        RgbImage source(*photo);
        autoExposureApplyRGB(channels(source), channels(*dark), photo->width(), photo->height(), &darken);
    }
    const RgbImagePtr target = stretchTarget(*dark);
    const Corrected automatic = correct(*dark, *target);
    const Corrected toOriginal = correct(*dark, *photo);
    ctx.report("  under-exposed (gain 0.55): mean brightness " + fixed(meanLuminance(*dark), 3) + " (photo " +
               fixed(meanLuminance(*photo), 3) + ")");
    ctx.report("  towards the stretched image: " + recordText(automatic.record) +
               ", mean " + fixed(meanLuminance(*automatic.image), 3) + ", RMS to target " +
               fixed(rmsDifference(*automatic.image, *target), 4) + ", " + fixed(automatic.ms, 1) + " ms");
    ctx.report("  towards the original photo: " + recordText(toOriginal.record) + ", RMS to the photo " +
               fixed(rmsDifference(*toOriginal.image, *photo), 4) + " (under-exposed: " +
               fixed(rmsDifference(*dark, *photo), 4) + ")");
    for (const Corrected* c : {&automatic, &toOriginal})
        if (!std::isfinite(meanLuminance(*c->image))) throw std::runtime_error("auto exposure gave non-finite pixels");
    writeImageRGB(ctx.outDir() / "autoexpose.png", *automatic.image, 8);
    ctx.addRow("Auto exposure: an under-exposed photo corrected",
               {{"photo", photo},
                {"under-exposed", dark},
                {"target (stretched)", target},
                {"corrected", automatic.image},
                {"fitted to the photo", toOriginal.image}});
}

const bool registered =
    registerCommand({"blend", kBlendUsage, "composite LAYER over BASE in one of fourteen blend modes", runBlend}) &&
    registerCommand({"autoexpose", kAutoUsage,
                     "correct the exposure of IN towards a target image, a mean brightness, or its own stretch",
                     runAutoExpose}) &&
    registerDemoStep({400, "blend modes", demoBlend}) && registerDemoStep({410, "auto exposure", demoAutoExposure});

}  // namespace
}  // namespace zorl::cli
