#pragma once
// The subcommands and demo steps of zorl-image. Each family adds one file
// (tools/zorl-image/cmd_<family>.cpp) that registers its subcommands and demo steps with
// static registrars; main.cpp only dispatches.

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <zorl/core/image_data.h>

namespace zorl::cli {

// Bad arguments or unreadable input: main prints "zorl-image: <what>" and exits with 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Parsed command line of one subcommand: positional words and --name value options
// (a flag without a value maps to "").
struct Args {
    std::vector<std::string> positional;
    std::map<std::string, std::string> options;

    bool has(const std::string& name) const { return options.count(name) != 0; }
    std::string get(const std::string& name, const std::string& fallback = "") const;
    // Numeric options; a malformed number throws UsageError naming the option.
    double number(const std::string& name, double fallback) const;
    int integer(const std::string& name, int fallback) const;
    // Throws UsageError unless there are between min and max positional words.
    void expectPositional(std::size_t min, std::size_t max, const std::string& usage) const;
};

// Splits argv into Args. flagOptions lists the options that take no value.
Args parseArgs(const std::vector<std::string>& words, const std::vector<std::string>& flagOptions = {});

struct Command {
    std::string name;     // e.g. "guided"
    std::string usage;    // e.g. "guided IN OUT --radius R --eps E [--fast]"
    std::string summary;  // one line for the help text
    std::function<int(const std::vector<std::string>& words)> run;  // words after the name
};

using RgbImage = _ImageData<PixelRGB<float>>;
using RgbImagePtr = std::shared_ptr<RgbImage>;

// One labelled picture of the contact sheet.
struct SheetCell {
    std::string label;
    std::shared_ptr<const RgbImage> image;
};

// What a demo step gets: the output folder, the demo photo, and the contact sheet.
class DemoContext {
public:
    DemoContext(std::filesystem::path outDir, RgbImagePtr photo);

    const std::filesystem::path& outDir() const { return outDir_; }
    // The demo photo (float RGB, about 640 x 480). Steps must not modify it.
    std::shared_ptr<const RgbImage> photo() const { return photo_; }
    // Adds one row to the contact sheet: a title and pictures side by side.
    void addRow(const std::string& title, std::vector<SheetCell> cells);
    // Writes one line to the demo's report (report.txt, and standard output).
    void report(const std::string& line);

    const std::vector<std::pair<std::string, std::vector<SheetCell>>>& rows() const { return rows_; }
    const std::vector<std::string>& reportLines() const { return report_; }

private:
    std::filesystem::path outDir_;
    RgbImagePtr photo_;
    std::vector<std::pair<std::string, std::vector<SheetCell>>> rows_;
    std::vector<std::string> report_;
};

struct DemoStep {
    int order;  // steps run in ascending order; the foundation's steps use 0..99
    std::string name;
    std::function<void(DemoContext&)> run;
};

// Called from static registrars; return true so they can initialise a bool.
bool registerCommand(Command command);
bool registerDemoStep(DemoStep step);

const std::vector<Command>& commands();
const std::vector<DemoStep>& demoSteps();

}  // namespace zorl::cli
