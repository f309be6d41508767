// Fuzzes the command-line parser. The input, cut at NUL bytes, is the argument vector
// after the program name; a real argv cannot hold a NUL either. The parser may only
// throw std::invalid_argument (bad device mode, no action, bad port) and
// std::out_of_range (port beyond int); anything else escapes and is a finding.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ArgsParser.h"

namespace {

const std::string kNoAction = "One of either --list, --file, --recover-safe or --recover-failsafe must be specified";
const std::string kBadMode = "Invalid device mode specified. Valid modes are 'normal', 'failsafe', or 'safemode'.";

void expect(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "fuzz_args: %s\n", what);
        std::abort();
    }
}

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> args{"devupdate"};
    if (size > 0) {
        args.emplace_back();
        for (size_t i = 0; i < size; ++i) {
            if (data[i] == 0) {
                args.emplace_back();
            } else {
                args.back().push_back(static_cast<char>(data[i]));
            }
        }
    }
    std::vector<const char*> argv;
    bool portGiven = false;
    for (const std::string& arg : args) {
        argv.push_back(arg.c_str());
        portGiven = portGiven || startsWith(arg, "--port=");
    }
    argv.push_back(nullptr);
    const int argc = static_cast<int>(args.size());

    std::unique_ptr<ToolConfig> config;
    try {
        config = ArgumentParser::parseArguments(argc, argv.data());
    } catch (const std::invalid_argument& e) {
        // Either one of the parser's own two texts, or the port conversion's.
        const std::string text = e.what();
        expect(text == kNoAction || text == kBadMode || portGiven, "unexpected invalid_argument");
        return 0;
    } catch (const std::out_of_range&) {
        expect(portGiven, "out_of_range without a port argument");
        return 0;
    }
    if (!config) {
        return 0; // an unknown argument: the caller prints the usage text
    }

    // What every accepted configuration promises its users.
    expect(config->listDevices || !config->firmwareFile.empty() || config->recoverSafe || config->recoverFailsafe,
           "accepted without an action");
    expect(portGiven || config->port == ArgumentParser::DEFAULT_PORT, "port not defaulted");
    expect(config->recoverSafeFile.empty() || config->recoverSafe, "safe image without the safe recovery");
    for (DeviceMode mode : config->deviceModes) {
        expect(mode == DeviceMode::Normal || mode == DeviceMode::Failsafe || mode == DeviceMode::Safe,
               "mode None selected");
    }
    return 0;
}
