// Fuzzes the command-line parser. The input, cut at NUL bytes (which a real argv cannot
// hold either), is the argument vector after the program name. Only std::invalid_argument
// (bad mode, no action, bad port) and std::out_of_range (port beyond int) may leave the
// parser; anything else escapes and is a finding.
#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "ArgsParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> args{"devupdate"};
    for (size_t start = 0, end = 0; size > 0 && start <= size; start = end + 1) {
        end = std::min(input.find('\0', start), size);
        args.push_back(input.substr(start, end - start));
    }
    std::vector<const char*> argv;
    for (const std::string& arg : args) {
        argv.push_back(arg.c_str());
    }
    argv.push_back(nullptr);
    try {
        ArgumentParser::parseArguments(static_cast<int>(args.size()), argv.data());
    } catch (const std::invalid_argument&) {
    } catch (const std::out_of_range&) {
    }
    return 0;
}
