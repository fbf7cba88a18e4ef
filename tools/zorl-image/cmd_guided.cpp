// The guided filter family on the command line: the subcommand `guided`, and demo step
// 300, the photo beside its self-guided smoothing at two radii, the fast variant and the
// weighted variant.

#include <imageprocessing/guided_filter.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <memory>
#include <set>
#include <stdexcept>

#include "image_io.h"
#include "imageprocessing/guided_filter/guided_kernels.h"
#include "registry.h"

namespace zorl::cli {
namespace {

const char* const kUsage = "guided IN OUT --radius R --eps E [--fast] [--guide G] [--weighted FRACTION]";

struct GuidedOptions {
    float radius = 0.0f;
    float epsilon = 0.0f;
    bool fast = false;
    bool weighted = false;
    float fraction = 0.0f;
};

const float* channels(const RgbImage& image) { return reinterpret_cast<const float*>(image.data()); }
float* channels(RgbImage& image) { return reinterpret_cast<float*>(image.data()); }

// Filters src under guide (src itself when null) into a new image; returns milliseconds.
double filter(const RgbImage& src, const RgbImage* guide, RgbImage& out, const GuidedOptions& o) {
    const std::size_t w = std::size_t(src.width()), h = std::size_t(src.height());
    const float* s = channels(src);
    const float* g = guide ? channels(*guide) : s;
    float* d = channels(out);
    const auto start = std::chrono::steady_clock::now();
    if (o.weighted) {
        grfx_weighted_guided_filter_rgb_tiled(s, g, d, w, h, o.radius, o.epsilon, o.fraction);
    } else if (o.fast) {
        if (guide)
            grfx_guided_filter_rgb_guided_fast(s, g, d, w, h, o.radius, o.epsilon);
        else
            grfx_guided_filter_rgb_fast(s, d, w, h, o.radius, o.epsilon);
    } else if (guide) {
        // The packed-RGB box mean of the library, handed over as the caller's box filter.
        grfx_guided_filter_rgb_guided(s, g, d, w, h, o.radius, o.epsilon,
                                      [](float* dd, const float* ss, int ww, int hh, int rr) {
                                          grfx::guided::boxMean(ss, dd, std::size_t(ww), std::size_t(hh), rr, 3);
                                      });
    } else {
        grfx_guided_filter_rgb(s, d, w, h, o.radius, o.epsilon);
    }
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

RgbImagePtr filtered(const RgbImage& src, const RgbImage* guide, const GuidedOptions& o, double* ms = nullptr) {
    auto out = std::make_shared<RgbImage>(src.size(), src.colorProfile());
    const double t = filter(src, guide, *out, o);
    if (ms) *ms = t;
    return out;
}

std::string fixed(double v, int decimals) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
    return buf;
}

// Mean absolute channel change: how much a filter smoothed.
double meanChange(const RgbImage& a, const RgbImage& b) {
    double sum = 0;
    const float* p = channels(a);
    const float* q = channels(b);
    const std::size_t n = a.pixelCount() * 3;
    for (std::size_t i = 0; i < n; ++i) sum += std::fabs(double(p[i]) - double(q[i]));
    return sum / double(n);
}

int runGuided(const std::vector<std::string>& words) {
    const Args args = parseArgs(words, {"fast"});
    args.expectPositional(2, 2, kUsage);
    const std::set<std::string> known = {"radius", "eps", "fast", "guide", "weighted"};
    for (const auto& [name, value] : args.options)
        if (!known.count(name)) throw UsageError("unknown option --" + name + " (usage: zorl-image " + kUsage + ")");
    if (!args.has("radius") || !args.has("eps"))
        throw UsageError(std::string("--radius and --eps are required (usage: zorl-image ") + kUsage + ")");
    GuidedOptions o;
    o.radius = float(args.number("radius", 0));
    o.epsilon = float(args.number("eps", 0));
    o.fast = args.has("fast");
    o.weighted = args.has("weighted");
    o.fraction = float(args.number("weighted", 0));
    if (!(o.radius >= 0) || !(o.epsilon >= 0)) throw UsageError("--radius and --eps must not be negative");
    if (o.fast && o.weighted) throw UsageError("--fast and --weighted exclude each other");
    if (o.weighted && !(o.fraction >= 0 && o.fraction <= 1)) throw UsageError("--weighted takes a fraction in 0..1");

    const RgbImagePtr src = readImageRGB(args.positional[0]);
    RgbImagePtr guide;
    if (args.has("guide")) {
        guide = readImageRGB(args.get("guide"));
        if (guide->size() != src->size()) throw UsageError("the guide must have the size of the input");
    }
    double ms = 0;
    const RgbImagePtr out = filtered(*src, guide.get(), o, &ms);
    writeImageRGB(args.positional[1], *out, 16);
    std::cout << args.positional[1] << ": " << src->width() << " x " << src->height() << ", "
              << (o.weighted ? "weighted" : o.fast ? "fast" : "full") << (guide ? " guided" : " self-guided")
              << " filter, radius " << o.radius << ", eps " << o.epsilon << ", " << fixed(ms, 1) << " ms, mean change "
              << fixed(meanChange(*src, *out), 5) << '\n';
    return 0;
}

void demoGuided(DemoContext& ctx) {
    const auto photo = ctx.photo();
    constexpr float kEpsilon = 0.1f;          // smooths variations below about a tenth of full scale
    constexpr float kWeightedEpsilon = 0.01f;  // the weighted filter's regulariser is epsilon itself: 0.1^2
    constexpr float kWeightFraction = 0.01f;  // weight map smoothed over 1% of the width
    struct Variant {
        const char* label;
        GuidedOptions options;
    };
    const Variant variants[] = {
        {"self-guided r=4", {4, kEpsilon, false, false, 0}},
        {"self-guided r=16", {16, kEpsilon, false, false, 0}},
        {"fast r=16", {16, kEpsilon, true, false, 0}},
        {"weighted r=16", {16, kWeightedEpsilon, false, true, kWeightFraction}},
    };
    std::vector<SheetCell> cells = {{"input", photo}};
    for (const Variant& v : variants) {
        double ms = 0;
        const RgbImagePtr out = filtered(*photo, nullptr, v.options, &ms);
        const double change = meanChange(*photo, *out);
        if (!std::isfinite(change)) throw std::runtime_error(std::string(v.label) + " gave non-finite pixels");
        ctx.report("  " + std::string(v.label) + ": " + fixed(ms, 1) + " ms, mean change " + fixed(change, 5));
        cells.push_back({v.label, out});
    }
    writeImageRGB(ctx.outDir() / "guided-r16.png", *cells[2].image, 8);
    ctx.addRow("Guided filter: self-guided at two radii, fast (quarter grid) and edge-aware weighted, eps 0.1",
               std::move(cells));
}

const bool registered =
    registerCommand({"guided", kUsage, "edge-preserving smoothing with the guided filter (self-guided or with a guide)",
                     runGuided}) &&
    registerDemoStep({300, "guided filter family", demoGuided});

}  // namespace
}  // namespace zorl::cli
