// Fuzzes the command-line parser. The input, cut at NUL bytes (which a real argv cannot
// hold either), is the argument vector after the program name. Only std::invalid_argument
// and std::out_of_range may leave the parser; anything else escapes and is a finding, and
// so is a configuration accepted without an action.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
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
        const auto config = ArgumentParser::parseArguments(static_cast<int>(args.size()), argv.data());
        if (config && !config->listDevices && config->firmwareFile.empty() && !config->recoverSafe &&
            !config->recoverFailsafe) {
            std::abort();
        }
    } catch (const std::invalid_argument&) {
    } catch (const std::out_of_range&) {
    }
    return 0;
}
