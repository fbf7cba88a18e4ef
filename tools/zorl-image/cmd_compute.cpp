// The compute unit on the command line: `render` frames an image (crop, rotation,
// flips) at a chosen size; demo step 200 keeps a working image, a preview and a
// thumbnail of the demo photo under a crop, rotation and flip, and re-renders a painted
// rectangle.

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>

#include <imageprocessing/image_data_compute_unit.h>
#include <imageprocessing/transform_computer.h>

#include "image_io.h"
#include "registry.h"

namespace zorl::cli {
namespace {

using Unit = ImageDataComputeUnit<RgbImage, RgbImage>;

std::string rectText(const _Rect<int>& r) {
    std::ostringstream s;
    s << "(" << r.x << ", " << r.y << ", " << r.width << ", " << r.height << ")";
    return s.str();
}

// "a,b,c,d" or "WxH" into n integers; throws UsageError naming the option.
std::vector<int> parseInts(const std::string& text, char separator, std::size_t n, const std::string& option) {
    std::vector<int> out;
    std::stringstream in(text);
    std::string part;
    while (std::getline(in, part, separator)) {
        char* end = nullptr;
        const long v = std::strtol(part.c_str(), &end, 10);
        if (part.empty() || *end != '\0') throw UsageError("--" + option + ": not a whole number: \"" + part + "\"");
        out.push_back(static_cast<int>(v));
    }
    if (out.size() != n) throw UsageError("--" + option + " needs " + std::to_string(n) + " numbers, got \"" + text + "\"");
    return out;
}

// ---- render --------------------------------------------------------------------------

int runRender(const std::vector<std::string>& words) {
    const std::string usage = "render IN OUT [--rotate DEG] [--crop X,Y,W,H] [--size WxH] [--flip h|v|hv]";
    const Args args = parseArgs(words);
    args.expectPositional(2, 2, usage);
    for (const auto& [name, value] : args.options)
        if (name != "rotate" && name != "crop" && name != "size" && name != "flip")
            throw UsageError("unknown option --" + name + " (usage: zorl-image " + usage + ")");
    auto source = readImageRGB(args.positional[0]);

    _Rect<int> crop = source->rect();
    if (args.has("crop")) {
        const auto c = parseInts(args.get("crop"), ',', 4, "crop");
        crop = {c[0], c[1], c[2], c[3]};
        if (crop.isEmpty()) throw UsageError("--crop needs a positive width and height");
    }
    _Size<int> size = crop.size();
    if (args.has("size")) {
        const auto s = parseInts(args.get("size"), 'x', 2, "size");
        size = {s[0], s[1]};
        if (size.isEmpty() || size.width > 20000 || size.height > 20000)
            throw UsageError("--size must be between 1x1 and 20000x20000");
    }
    const std::string flip = args.get("flip");
    if (!flip.empty() && flip != "h" && flip != "v" && flip != "hv")
        throw UsageError("--flip must be h, v or hv, got \"" + flip + "\"");

    ImageTransformSettings settings;
    settings.canvasSize = source->size();
    settings.crop = CropDescription(crop, static_cast<float>(args.number("rotate", 0.0)),
                                    flip.find('h') != std::string::npos, flip.find('v') != std::string::npos);
    settings.region = {0.0f, 0.0f, static_cast<float>(crop.width), static_cast<float>(crop.height)};
    settings.workingSize = size;
    Unit unit(source);
    unit.setTransform(settings);
    const auto out = unit.workingImage();
    if (!out) throw UsageError("nothing to render");
    writeImageRGB(args.positional[1], *out, 8);
    std::cout << args.positional[1] << ": " << out->width() << " x " << out->height() << " from crop "
              << rectText(crop) << ", rotated " << settings.crop.angle << " degrees"
              << (flip.empty() ? "" : ", flipped " + flip) << '\n';
    return 0;
}

// ---- demo step 200 -------------------------------------------------------------------

void demoCompute(DemoContext& ctx) {
    const auto photo = ctx.photo();
    auto source = std::make_shared<RgbImage>(*photo);  // the unit's own, editable copy
    const _Size<int> canvas = source->size();

    ImageTransformSettings settings;
    settings.canvasSize = canvas;
    const int cropW = canvas.width * 3 / 4, cropH = canvas.height * 3 / 4;
    settings.crop = CropDescription({canvas.width / 8, canvas.height / 8, cropW, cropH}, 12.0f, true, false);
    // The working image: the middle half of the crop at its own size (a 2x zoom-in shown
    // at the crop's scale would be region = half, size = full).
    settings.region = {cropW / 4.0f, cropH / 4.0f, cropW / 2.0f, cropH / 2.0f};
    settings.workingSize = {cropW / 2, cropH / 2};

    Unit unit(source);
    unit.setTransform(settings);
    const auto t0 = std::chrono::steady_clock::now();
    const auto working = unit.workingImage();
    const auto preview = unit.preview();
    const auto thumbnail = unit.thumbnail();
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    if (!working || !preview || !thumbnail) throw std::runtime_error("a rendition could not be built");
    char line[160];
    std::snprintf(line, sizeof line, "  crop %s, 12 degrees, flipped left-right; renditions built in %.1f ms",
                  rectText(settings.crop.rect).c_str(), ms);
    ctx.report(line);
    ctx.report("  working image " + std::to_string(working->width()) + " x " + std::to_string(working->height()) +
               " (region " + rectText(_Rect<int>(settings.region)) + "), preview " +
               std::to_string(preview->width()) + " x " + std::to_string(preview->height()) + ", thumbnail " +
               std::to_string(thumbnail->width()) + " x " + std::to_string(thumbnail->height()));
    unit.getWorkingImageUpdateRect();
    unit.getPreviewUpdateRect();
    const auto workingBefore = std::make_shared<RgbImage>(*working);  // updates write in place
    const auto previewBefore = std::make_shared<RgbImage>(*preview);

    // A "brush stroke": a magenta block in the middle of the source, then the unit is told.
    const _Rect<int> painted{canvas.width / 2 - 20, canvas.height / 2 - 12, 40, 24};
    for (int y = painted.y; y < painted.bottom(); ++y)
        for (int x = painted.x; x < painted.right(); ++x) source->at(x, y) = {1.0f, 0.0f, 1.0f};
    unit.updateWorkingImage(source, painted);
    unit.updatePreview(source, painted);
    const _Rect<int> workingRect = unit.getWorkingImageUpdateRect(), previewRect = unit.getPreviewUpdateRect();
    ctx.report("  painted source " + rectText(painted) + ": working image re-rendered in " + rectText(workingRect) +
               ", preview in " + rectText(previewRect) + ", thumbnail dropped: " +
               (unit.hasThumbnail() ? "no" : "yes"));

    // The partial re-render equals a full rebuild inside the re-rendered rectangle.
    Unit rebuilt(source);
    rebuilt.setTransform(settings);
    const auto full = rebuilt.workingImage();
    std::size_t mismatches = 0;
    for (int y = workingRect.y; y < workingRect.bottom(); ++y)
        for (int x = workingRect.x; x < workingRect.right(); ++x) mismatches += !(working->at(x, y) == full->at(x, y));
    ctx.report("  re-rendered pixels that differ from a full rebuild: " + std::to_string(mismatches));
    if (mismatches) throw std::runtime_error("partial re-render differs from a full rebuild");

    writeImageRGB(ctx.outDir() / "compute-working.png", *working, 8);
    writeImageRGB(ctx.outDir() / "compute-preview.png", *preview, 8);
    writeImageRGB(ctx.outDir() / "compute-thumbnail.png", *thumbnail, 8);
    ctx.addRow("Compute unit: crop + 12 degree rotation + left-right flip (working image, preview, thumbnail)",
               {{"working image", workingBefore},
                {"preview 500 px", previewBefore},
                {"thumbnail", thumbnail},
                {"working after paint", std::make_shared<RgbImage>(*working)}});
}

const bool registered =
    registerCommand({"render", "render IN OUT [--rotate DEG] [--crop X,Y,W,H] [--size WxH] [--flip h|v|hv]",
                     "crop, rotate (about the image centre) and flip an image, resampled to a size", runRender}) &&
    registerDemoStep({200, "compute unit: working image, preview and thumbnail under crop, rotation and flip",
                      demoCompute});

}  // namespace
}  // namespace zorl::cli
