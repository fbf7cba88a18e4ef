// Argument parsing, the command and demo-step registries, and the demo context.

#include "registry.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iostream>

namespace zorl::cli {

std::string Args::get(const std::string& name, const std::string& fallback) const {
    const auto it = options.find(name);
    return it == options.end() ? fallback : it->second;
}

double Args::number(const std::string& name, double fallback) const {
    const auto it = options.find(name);
    if (it == options.end()) return fallback;
    const std::string& text = it->second;
    double value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
        throw UsageError("option --" + name + " needs a number, got '" + text + "'");
    return value;
}

int Args::integer(const std::string& name, int fallback) const {
    const auto it = options.find(name);
    if (it == options.end()) return fallback;
    const std::string& text = it->second;
    int value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size())
        throw UsageError("option --" + name + " needs a whole number, got '" + text + "'");
    return value;
}

void Args::expectPositional(std::size_t min, std::size_t max, const std::string& usage) const {
    if (positional.size() < min || positional.size() > max) throw UsageError("usage: zorl-image " + usage);
}

// "--name value", "--name=value", or "--flag" for the names in flagOptions; "--" ends the
// options, so that a file name may start with a dash.
Args parseArgs(const std::vector<std::string>& words, const std::vector<std::string>& flagOptions) {
    Args args;
    bool optionsDone = false;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& w = words[i];
        if (optionsDone || w.size() < 3 || w.compare(0, 2, "--") != 0) {
            if (w == "--" && !optionsDone) {
                optionsDone = true;
                continue;
            }
            args.positional.push_back(w);
            continue;
        }
        std::string name = w.substr(2);
        const auto eq = name.find('=');
        if (eq != std::string::npos) {
            args.options[name.substr(0, eq)] = name.substr(eq + 1);
            continue;
        }
        if (std::find(flagOptions.begin(), flagOptions.end(), name) != flagOptions.end()) {
            args.options[name] = "";
            continue;
        }
        if (i + 1 >= words.size()) throw UsageError("option --" + name + " needs a value");
        args.options[name] = words[++i];
    }
    return args;
}

DemoContext::DemoContext(std::filesystem::path outDir, RgbImagePtr photo)
    : outDir_(std::move(outDir)), photo_(std::move(photo)) {}

void DemoContext::addRow(const std::string& title, std::vector<SheetCell> cells) {
    rows_.emplace_back(title, std::move(cells));
}

void DemoContext::report(const std::string& line) {
    report_.push_back(line);
    std::cout << line << '\n';
}

namespace {
// Function-local statics: the registrars of other files run during static
// initialisation, in an order nobody controls.
std::vector<Command>& commandList() {
    static std::vector<Command> list;
    return list;
}
std::vector<DemoStep>& stepList() {
    static std::vector<DemoStep> list;
    return list;
}
}  // namespace

bool registerCommand(Command command) {
    auto& list = commandList();
    const auto at = std::lower_bound(list.begin(), list.end(), command.name,
                                     [](const Command& c, const std::string& n) { return c.name < n; });
    list.insert(at, std::move(command));
    return true;
}

bool registerDemoStep(DemoStep step) {
    auto& list = stepList();
    // Ascending order; steps of equal order keep their name order, so runs are repeatable.
    const auto at = std::upper_bound(list.begin(), list.end(), step, [](const DemoStep& a, const DemoStep& b) {
        return a.order != b.order ? a.order < b.order : a.name < b.name;
    });
    list.insert(at, std::move(step));
    return true;
}

const std::vector<Command>& commands() { return commandList(); }
const std::vector<DemoStep>& demoSteps() { return stepList(); }

}  // namespace zorl::cli
