// The tiled RGB stores on the command line: `tiles-preview` reads a saved store (either
// scheme) and writes its 500-pixel preview; demo step 150 paints into a 20000 x 15000
// store in a few places, reports what it holds against the dense size, saves and
// reloads it, and shows its preview and thumbnail through a compute unit.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include <imageprocessing/image_data_compute_unit.h>
#include <imageprocessing/tiled_image_data_stores.h>
#include <imageprocessing/transform_computer.h>
#include <zorl/logger/logger.h>

#include "image_io.h"
#include "registry.h"

namespace zorl::cli {
namespace {

using Unit = ImageDataComputeUnit<RgbImage, BarcTiledImageData>;

double msSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

std::string megabytes(uint64_t bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f MB", double(bytes) / 1e6);
    return text;
}

ImageTransformSettings wholeCanvas(_Size<int> size, _Size<int> working) {
    ImageTransformSettings s;
    s.canvasSize = size;
    s.region = {0.0f, 0.0f, float(size.width), float(size.height)};
    s.workingSize = working;
    return s;
}

// The older scheme's copy of a store: its present tiles copied over.
std::shared_ptr<BarcTiledImageData> toBarc(const TiledImageData& s) {
    auto out = std::make_shared<BarcTiledImageData>(s.size(), s.fillColor(), s.colorProfile());
    for (int i = 0; i < s.tileCount(); ++i)
        if (s.hasTile(i)) {
            const _Rect<int> r = s.getTileRect(i);
            out->writeRect(*s.readRect(r), kNoRegion, {r.x, r.y});
        }
    return out;
}

std::vector<uint8_t> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw UsageError("cannot read " + path);
    return {std::istreambuf_iterator<char>(in), {}};
}

// ---- tiles-preview -------------------------------------------------------------------

int runTilesPreview(const std::vector<std::string>& words) {
    const std::string usage = "tiles-preview IN OUT";
    const Args args = parseArgs(words);
    args.expectPositional(2, 2, usage);
    if (!args.options.empty()) throw UsageError("unknown option --" + args.options.begin()->first);
    const std::vector<uint8_t> bytes = readFile(args.positional[0]);
    std::shared_ptr<BarcTiledImageData> store;
    std::string scheme = "current";
    int tiles = 0;
    {
        const LogSink previous = setLogSink([](LogMessageType, const std::string&) {});  // a refusal is not news here
        if (auto kel = KelTiledImageData::decode(std::make_shared<Decoder>(bytes))) {
            store = toBarc(*kel);
            tiles = kel->presentTileCount();
        } else {
            store = BarcTiledImageData::decode(std::make_shared<Decoder>(bytes));
            scheme = "older";
            tiles = store ? store->presentTileCount() : 0;
        }
        setLogSink(previous);
    }
    if (!store) throw UsageError(args.positional[0] + ": not a tiled image store");
    if (store->size().isEmpty()) throw UsageError(args.positional[0] + ": the store is empty");
    Unit unit(store);
    unit.setTransform(wholeCanvas(store->size(), store->size()));
    const auto preview = unit.preview();
    if (!preview) throw UsageError("nothing to render");
    writeImageRGB(args.positional[1], *preview, 8);
    std::cout << args.positional[1] << ": preview " << preview->width() << " x " << preview->height() << " of a "
              << store->width() << " x " << store->height() << " store (" << scheme << " scheme, "
              << tiles << " tiles)\n";
    return 0;
}

// ---- demo step 150 -------------------------------------------------------------------

void demoTiles(DemoContext& ctx) {
    const _Size<int> size{20000, 15000};
    const RgbImage::value_type paper{0.93f, 0.91f, 0.86f};
    KelTiledImageData store(size, paper, ColorProfileType::sRGB());
    const auto photo = ctx.photo();

    // Three pastes of the photo (one across a supertile corner at 10240, 8192) and a
    // red band along the bottom edge.
    const auto t0 = std::chrono::steady_clock::now();
    const std::vector<_Point<int>> places{{1200, 900}, {10240 - 300, 8192 - 200}, {17500, 12800}};
    for (const auto& p : places) store.writeRect(*photo, kNoRegion, p);
    store.fillRoi({0, size.height - 120, 6000, 120}, {0.85f, 0.1f, 0.1f});
    const double paintMs = msSince(t0);
    const uint64_t dense = uint64_t(size.area()) * sizeof(RgbImage::value_type);
    char line[200];
    std::snprintf(line, sizeof line, "  %d x %d store, %d of %d tiles present (%zu modified), painted in %.1f ms",
                  size.width, size.height, store.presentTileCount(), store.tileCount(), store.modifiedTiles().size(),
                  paintMs);
    ctx.report(line);
    ctx.report("  holds " + megabytes(store.heldBytes()) + " against " + megabytes(dense) + " dense (" +
               std::to_string(dense / std::max<uint64_t>(store.heldBytes(), 1)) + "x less)");

    // Save, reload, compare.
    const auto t1 = std::chrono::steady_clock::now();
    auto encoder = std::make_shared<Encoder>();
    store.encode(encoder);
    const std::vector<uint8_t> bytes = encoder->take();
    const double saveMs = msSince(t1);
    {
        std::ofstream out(ctx.outDir() / "tiles.kel", std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    }
    const auto t2 = std::chrono::steady_clock::now();
    const auto reloaded = KelTiledImageData::decode(std::make_shared<Decoder>(bytes));
    const double loadMs = msSince(t2);
    if (!reloaded) throw std::runtime_error("the saved store did not load");
    std::size_t differing = 0;
    for (int i = 0; i < store.tileCount(); ++i) {
        if (!store.hasTile(i)) continue;
        const auto a = store.readRect(store.getTileRect(i)), b = reloaded->readRect(store.getTileRect(i));
        differing += std::memcmp(a->data(), b->data(), a->byteCount()) != 0;
    }
    std::snprintf(line, sizeof line,
                  "  saved to tiles.kel: %s in %.0f ms; reloaded in %.0f ms, %zu tiles differ, %zu modified after load",
                  megabytes(bytes.size()).c_str(), saveMs, loadMs, differing, reloaded->modifiedTiles().size());
    ctx.report(line);
    if (differing) throw std::runtime_error("the reloaded store differs");

    // Renditions: the compute unit takes the older scheme; the current one is resampled
    // by the transform computer directly.
    const auto barc = toBarc(*reloaded);
    Unit unit(barc);
    unit.setTransform(wholeCanvas(size, {2000, 1500}));
    const auto t3 = std::chrono::steady_clock::now();
    const auto preview = unit.preview();
    const double previewMs = msSince(t3);
    const auto thumbnail = unit.thumbnail();
    if (!preview || !thumbnail) throw std::runtime_error("a rendition could not be built");
    const TransformComputer tc(unit.imageTransformSettings(), TransformComputer::DataSourceType::ImageData);
    auto kelPreview = std::make_shared<RgbImage>(preview->size(), ColorProfileType::sRGB());
    tc.updateTransformedRoi(*reloaded, kelPreview, tc.calculateCanvasRoi(), kEmptyRect);
    std::snprintf(line, sizeof line, "  preview %d x %d in %.0f ms, thumbnail %d x %d (compute unit, older scheme)",
                  preview->width(), preview->height(), previewMs, thumbnail->width(), thumbnail->height());
    ctx.report(line);

    writeImageRGB(ctx.outDir() / "tiles-preview.png", *preview, 8);
    writeImageRGB(ctx.outDir() / "tiles-thumbnail.png", *thumbnail, 8);
    const auto detail = reloaded->readRect({places[1].x - 200, places[1].y - 150, 640, 480});
    ctx.addRow("Tiled store 20000 x 15000: three pastes and a band, saved and reloaded",
               {{"preview (compute unit)", preview},
                {"preview (current scheme)", kelPreview},
                {"thumbnail", thumbnail},
                {"full-resolution detail", detail}});
}

const bool registered =
    registerCommand({"tiles-preview", "tiles-preview IN OUT",
                     "write the 500-pixel preview of a saved tiled image store (either scheme)", runTilesPreview}) &&
    registerDemoStep({150, "tiled image store: sparse painting, save, reload, preview", demoTiles});

}  // namespace
}  // namespace zorl::cli
