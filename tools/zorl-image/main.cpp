// zorl-image: the command-line front door of the image library. Every subcommand lives
// in a cmd_<family>.cpp that registers itself (registry.h); this file only dispatches.
//
// Exit status: 0 done, 2 bad arguments or unreadable input (one line on standard error,
// nothing written), 1 any other failure.

#include <Magick++.h>

#include <iostream>

#include "registry.h"

namespace {

void printHelp(std::ostream& out) {
    out << "usage: zorl-image COMMAND [ARGS...]\n\ncommands:\n";
    for (const auto& c : zorl::cli::commands()) out << "  " << c.usage << "\n      " << c.summary << '\n';
}

}  // namespace

int main(int argc, char** argv) {
    Magick::InitializeMagick(argc > 0 ? argv[0] : nullptr);
    const std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    if (words.empty()) {
        std::cerr << "zorl-image: no command given (try 'zorl-image help')\n";
        return 2;
    }
    if (words[0] == "help" || words[0] == "--help" || words[0] == "-h") {
        printHelp(std::cout);
        return 0;
    }
    const zorl::cli::Command* command = nullptr;
    for (const auto& c : zorl::cli::commands())
        if (c.name == words[0]) command = &c;
    if (!command) {
        std::cerr << "zorl-image: unknown command '" << words[0] << "' (try 'zorl-image help')\n";
        return 2;
    }
    try {
        return command->run(std::vector<std::string>(words.begin() + 1, words.end()));
    } catch (const zorl::cli::UsageError& e) {
        std::cerr << "zorl-image: " << e.what() << '\n';
        return 2;
    } catch (const std::exception& e) {
        std::cerr << "zorl-image: " << command->name << " failed: " << e.what() << '\n';
        return 1;
    }
}
