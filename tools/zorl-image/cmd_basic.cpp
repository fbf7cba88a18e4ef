// The foundation's subcommands: info, convert, demo; and demo step 0, the input photo
// with its 8- and 16-bit conversions round-tripped.

#include <Magick++.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <sstream>

#include <imageprocessing/conversion.h>

#include "contact_sheet.h"
#include "image_io.h"
#include "registry.h"

namespace zorl::cli {
namespace fs = std::filesystem;
namespace {

std::string fixed(double v, int decimals) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
    return buf;
}

// ---- info ----------------------------------------------------------------------------

int runInfo(const std::vector<std::string>& words) {
    const Args args = parseArgs(words);
    args.expectPositional(1, 1, "info FILE");
    const fs::path path = args.positional[0];
    const RgbImagePtr image = readImageRGB(path);  // validates the file first
    Magick::Image header;
    header.quiet(true);
    header.ping(path.string());

    double sum[3] = {0, 0, 0};
    float lo = image->data()[0].r, hi = lo;
    for (std::size_t i = 0; i < image->pixelCount(); ++i) {
        const PixelRGB<float>& p = image->data()[i];
        sum[0] += p.r, sum[1] += p.g, sum[2] += p.b;
        lo = std::min({lo, p.r, p.g, p.b});
        hi = std::max({hi, p.r, p.g, p.b});
    }
    const double n = double(image->pixelCount());
    std::cout << "file:     " << path.string() << '\n'
              << "format:   " << header.magick() << '\n'
              << "size:     " << image->width() << " x " << image->height() << '\n'
              << "depth:    " << header.depth() << " bit per channel\n"
              << "channels: " << (header.type() == Magick::GrayscaleType ? "gray" : "RGB")
              << (header.matte() ? " with alpha (dropped when read)" : "") << '\n'
              << "mean:     " << fixed(sum[0] / n, 4) << ' ' << fixed(sum[1] / n, 4) << ' ' << fixed(sum[2] / n, 4)
              << " (r g b, 0..1)\n"
              << "range:    " << fixed(lo, 4) << " .. " << fixed(hi, 4) << '\n';
    return 0;
}

// ---- convert -------------------------------------------------------------------------

int runConvert(const std::vector<std::string>& words) {
    const Args args = parseArgs(words);
    const std::string usage = "convert IN OUT [--depth 8|16]";
    args.expectPositional(2, 2, usage);
    for (const auto& [name, value] : args.options)
        if (name != "depth") throw UsageError("unknown option --" + name + " (usage: zorl-image " + usage + ")");
    const int depth = args.integer("depth", 8);
    if (depth != 8 && depth != 16) throw UsageError("--depth must be 8 or 16, got " + args.get("depth"));
    const RgbImagePtr image = readImageRGB(args.positional[0]);
    writeImageRGB(args.positional[1], *image, depth);
    std::cout << args.positional[1] << ": " << image->width() << " x " << image->height() << ", " << depth << " bit\n";
    return 0;
}

// ---- demo ----------------------------------------------------------------------------

int runDemo(const std::vector<std::string>& words) {
    const Args args = parseArgs(words);
    args.expectPositional(0, 1, "demo [OUTDIR]");
    if (!args.options.empty()) throw UsageError("demo takes no options (usage: zorl-image demo [OUTDIR])");
    const fs::path outDir = args.positional.empty() ? fs::path("demo-out") : fs::path(args.positional[0]);
    std::error_code ec;
    fs::create_directories(outDir, ec);
    if (ec || !fs::is_directory(outDir)) throw UsageError("cannot create folder " + outDir.string());

    DemoContext ctx(outDir, builtinPhoto());
    ctx.report("zorl-image demo: " + std::to_string(ctx.photo()->width()) + " x " +
               std::to_string(ctx.photo()->height()) + " photo, " + std::to_string(demoSteps().size()) + " steps");
    int failed = 0;
    for (const DemoStep& step : demoSteps()) {
        ctx.report("");
        std::string heading = "[";  // built up in steps: GCC 12 misreads "x" + to_string(n) (-Wrestrict)
        heading += std::to_string(step.order);
        heading += "] ";
        heading += step.name;
        ctx.report(heading);
        try {
            step.run(ctx);
        } catch (const std::exception& e) {
            ctx.report("  FAILED: " + std::string(e.what()));
            ++failed;
        }
    }
    writeContactSheet(outDir / "contact-sheet.png", ctx.rows());
    ctx.report("");
    ctx.report("wrote " + (outDir / "contact-sheet.png").string() + " and " + (outDir / "report.txt").string());
    std::ostringstream text;
    for (const std::string& line : ctx.reportLines()) text << line << '\n';
    writeTextFile(outDir / "report.txt", text.str());
    if (failed) std::cerr << "zorl-image: " << failed << " demo step(s) failed, see report.txt\n";
    return failed ? 1 : 0;
}

// ---- demo step 0 ---------------------------------------------------------------------

// Largest absolute channel difference of two images of one size.
float maxDifference(const RgbImage& a, const RgbImage& b) {
    float worst = 0;
    for (std::size_t i = 0; i < a.pixelCount(); ++i) {
        const PixelRGB<float>& p = a.data()[i];
        const PixelRGB<float>& q = b.data()[i];
        worst = std::max({worst, std::fabs(p.r - q.r), std::fabs(p.g - q.g), std::fabs(p.b - q.b)});
    }
    return worst;
}

// |a - b| times gain, so that an error of one 8-bit step becomes visible.
RgbImagePtr differenceImage(const RgbImage& a, const RgbImage& b, float gain) {
    auto out = std::make_shared<RgbImage>(a.size(), a.colorProfile());
    for (std::size_t i = 0; i < a.pixelCount(); ++i) {
        const PixelRGB<float>& p = a.data()[i];
        const PixelRGB<float>& q = b.data()[i];
        out->data()[i] = {gain * std::fabs(p.r - q.r), gain * std::fabs(p.g - q.g), gain * std::fabs(p.b - q.b)};
    }
    return out;
}

template <class T>
RgbImagePtr roundTrip(const std::shared_ptr<const RgbImage>& photo) {
    const auto ints = floatToIntImageData<T>(photo);
    if (!ints) throw std::runtime_error("float to integer conversion gave nothing");
    auto back = intToFloatImageData<T>(std::shared_ptr<const _ImageData<PixelRGB<T>>>(ints));
    if (!back) throw std::runtime_error("integer to float conversion gave nothing");
    return back;
}

void demoInput(DemoContext& ctx) {
    constexpr float kErrorGain = 64.0f;  // one 8-bit step (1/255) shows as a quarter of full scale
    const auto photo = ctx.photo();
    writeImageRGB(ctx.outDir() / "input.png", *photo, 8);
    const RgbImagePtr back8 = roundTrip<uint8_t>(photo);
    const RgbImagePtr back16 = roundTrip<uint16_t>(photo);
    writeImageRGB(ctx.outDir() / "input-16bit.png", *back16, 16);
    const RgbImagePtr reread = readImageRGB(ctx.outDir() / "input-16bit.png");

    const float e8 = maxDifference(*photo, *back8), e16 = maxDifference(*photo, *back16);
    ctx.report("  input.png: the photo as 8-bit PNG; input-16bit.png: its 16-bit round trip");
    ctx.report("  8-bit round trip:  max error " + fixed(e8, 6) + " (one step is " + fixed(1.0 / 255, 6) +
               (e8 == 0.0f ? "; the photo holds 8-bit values, which survive exactly)" : "; truncation stays below one step)"));
    ctx.report("  16-bit round trip: max error " + fixed(e16, 8) + " (one step is " + fixed(1.0 / 65535, 8) + ")");
    ctx.report("  16-bit file read back: max difference " + fixed(maxDifference(*back16, *reread), 8) +
               " (writing truncates k/65535 x 65535, which in float can land just below k: one step)");
    if (e8 > 1.0f / 255 || e16 > 1.0f / 65535) throw std::runtime_error("round trip error above one integer step");
    ctx.addRow("Input photo and its integer round trips (float -> 8/16 bit -> float)",
               {{"input (float)", photo},
                {"8-bit round trip", back8},
                {"16-bit round trip", back16},
                {"8-bit error x64", differenceImage(*photo, *back8, kErrorGain)}});
}

const bool registered = registerCommand({"info", "info FILE", "size, depth, channels and pixel statistics of an image", runInfo}) &&
                        registerCommand({"convert", "convert IN OUT [--depth 8|16]",
                                         "re-encode an image (PNG, JPEG, TIFF) at 8 or 16 bit per channel", runConvert}) &&
                        registerCommand({"demo", "demo [OUTDIR]",
                                         "run every family on a built-in photo; writes contact-sheet.png and report.txt",
                                         runDemo}) &&
                        registerDemoStep({0, "input photo and integer round trips", demoInput});

}  // namespace
}  // namespace zorl::cli
