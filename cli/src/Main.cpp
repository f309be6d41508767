#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>

#include "ArgsParser.h"
#include "Main.h"
#include "ToolStateMachine.h"
#include "WebsocketClient.h"

void printUsage(const std::string& programName) {
    // Deliberately out of step with the parser in places ("--update-all" is parsed
    // as "--all"); scripts and users already rely on this exact text.
    std::cout << "Usage: " << programName << " [options]\n\n"
              << "Options:\n"
              << "  --port=<port_number>   Set port number  (default: " << ArgumentParser::DEFAULT_PORT << ")\n"
              << "\n"
              << "Update Options:\n"
              << "  --update-all, -a              Update all devices (default: update the first match)\n"
              << "  --file=<filename>             Update normal mode devices with the specified firmware file\n"
              << "  --recover-safe[=<filename>]   Recovers safe mode devices. If no filename is provided, uses the "
                 "library image.\n"
              << "  --recover-failsafe            Recovers failsafe mode devices using the library image.\n"
              << "  --force, -f                   Force the device to accept the update, where the manufacturer / "
                 "model mismatches.\n"
              << "\n"
              << "Filtering Options:\n"
              << "  --device-mode=<mode>   Specify the mode of devices to filter.\n"
              << "                         MODE can be one of the following:\n"
              << "                             - normal    : Show normal devices only.\n"
              << "                             - failsafe  : Show fail-safe devices only.\n"
              << "                             - safe      : Show safe-mode devices only.\n"
              << "  --device-name=<name>   Specify device name filter\n"
              << "  --device-ip=<ip>       Specify device IP address filter\n"
              << "  --device-mac=<mac>     Specify device MAC address filter\n"
              << "  --manufacturer=<id>    Specify manufacturer ID filter\n"
              << "  --model=<id>           Specify model ID filter\n"
              << "\n"
              << "Other Options:\n"
              << "  --list                 List devices\n"
              << "  --reboot               reboot devices (after update if updating)\n"
              << "  --long-lived           Enable long-lived connection (experimental)\n"
              << "\n"
              << std::flush;
}

namespace {

int fail(const char* message) {
    std::cout << "Error: " << message << "\n" << std::flush;
    return 1;
}

} // namespace

int main(int argc, char* argv[]) {
    std::unique_ptr<ToolConfig> config;
    try {
        config = ArgumentParser::parseArguments(argc, argv);
    } catch (const std::exception& e) {
        return fail(e.what());
    }
    if (!config) {
        printUsage(argv[0]);
        return 1;
    }

    if (!config->firmwareFile.empty()) {
        if (!std::filesystem::exists(std::filesystem::status(config->firmwareFile))) {
            return fail("The specified firmware file did not exist.");
        }
        if (!std::filesystem::is_regular_file(std::filesystem::status(config->firmwareFile))) {
            return fail("The specified firmware file was not a regular file.");
        }
    }

    ToolStateMachine::State finalState;
    {
        std::shared_ptr<IWebsocketClient> client(new WebsocketClient());
        // The controller takes its own copy of the configuration and becomes the
        // client's only owner.
        ToolStateMachine machine(ToolConfig(*config), std::cout, std::move(client));
        machine.run();
        finalState = machine.getState();
    }
    config.reset();
    return finalState == ToolStateMachine::Done ? 0 : 1;
}
