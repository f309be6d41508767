#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Outcome {
    std::string output;
    int status;
};

// Runs the built tool with `args` (already shell-quoted), standard error discarded.
Outcome runTool(const std::string& args) {
    const std::string command = std::string("'") + DEVUPDATE_BINARY + "' " + args + " 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    Outcome outcome{"", -1};
    if (pipe == nullptr) {
        return outcome;
    }
    char buffer[4096];
    std::size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        outcome.output.append(buffer, n);
    }
    const int raw = pclose(pipe);
    outcome.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return outcome;
}

std::string usage() {
    return std::string("Usage: ") + DEVUPDATE_BINARY +
           " [options]\n"
           "\n"
           "Options:\n"
           "  --port=<port_number>   Set port number  (default: 7070)\n"
           "\n"
           "Update Options:\n"
           "  --update-all, -a              Update all devices (default: update the first match)\n"
           "  --file=<filename>             Update normal mode devices with the specified firmware file\n"
           "  --recover-safe[=<filename>]   Recovers safe mode devices. If no filename is provided, uses the library "
           "image.\n"
           "  --recover-failsafe            Recovers failsafe mode devices using the library image.\n"
           "  --force, -f                   Force the device to accept the update, where the manufacturer / model "
           "mismatches.\n"
           "\n"
           "Filtering Options:\n"
           "  --device-mode=<mode>   Specify the mode of devices to filter.\n"
           "                         MODE can be one of the following:\n"
           "                             - normal    : Show normal devices only.\n"
           "                             - failsafe  : Show fail-safe devices only.\n"
           "                             - safe      : Show safe-mode devices only.\n"
           "  --device-name=<name>   Specify device name filter\n"
           "  --device-ip=<ip>       Specify device IP address filter\n"
           "  --device-mac=<mac>     Specify device MAC address filter\n"
           "  --manufacturer=<id>    Specify manufacturer ID filter\n"
           "  --model=<id>           Specify model ID filter\n"
           "\n"
           "Other Options:\n"
           "  --list                 List devices\n"
           "  --reboot               reboot devices (after update if updating)\n"
           "  --long-lived           Enable long-lived connection (experimental)\n"
           "\n";
}

TEST(Entry, FailurePathsPrintTheirTextAndExitOne) {
    namespace fs = std::filesystem;
    const fs::path dir = fs::temp_directory_path() / ("devupdate-entry-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    const fs::path image = dir / "fw.bin";
    std::ofstream(image) << "image";
    fs::create_symlink(image, dir / "link.bin");
    fs::create_symlink(dir / "gone.bin", dir / "dangling.bin");
    const std::string d = "'" + dir.string() + "/";

    // Port 0 is refused by the WebSocket library before any connection is tried, so a
    // run that got past every entry check prints just that line.
    const std::string refused = "Error initializing connection: invalid uri\n";
    const std::string missing = "Error: The specified firmware file did not exist.\n";
    const std::string notRegular = "Error: The specified firmware file was not a regular file.\n";
    const struct {
        std::string args;
        std::string output;
    } cases[] = {
        {"", "Error: One of either --list, --file, --recover-safe or --recover-failsafe must be specified\n"},
        {"--help", usage()},
        {"--update-all --list", usage()},
        {"--bogus --device-mode=x", usage()},
        {"--device-mode=safemode --list",
         "Error: Invalid device mode specified. Valid modes are 'normal', 'failsafe', or 'safemode'.\n"},
        {"--port=abc --list", "Error: stoi\n"},
        {"--port=99999999999 --list", "Error: stoi\n"},
        {"--file=" + d + "missing.bin'", missing},
        {"--file=" + d + "dangling.bin'", missing},
        {"--file=" + d + "'", notRegular},
        {"--file=/dev/null", notRegular},
        {"--port=0 --file=" + d + "link.bin'", refused},
        {"--port=0 --file= --list", refused},
        {"--port=0 --recover-safe=" + d + "missing.bin'", refused},
        {"--port=-1 --list", refused},
    };
    for (const auto& c : cases) {
        const Outcome outcome = runTool(c.args);
        EXPECT_EQ(outcome.output, c.output) << c.args;
        EXPECT_EQ(outcome.status, 1) << c.args;
    }
    fs::remove_all(dir);
}

} // namespace
