#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

namespace {

// The built tool's usage text, errors and exit status, on the paths that need no service.
TEST(Entry, UsageErrorsAndExitStatus) {
    // The text as the tool prints it when started as plain "devupdate".
    std::ifstream golden(USAGE_FILE);
    std::string usage((std::istreambuf_iterator<char>(golden)), {});
    ASSERT_FALSE(usage.empty()) << USAGE_FILE;
    usage.replace(usage.find("devupdate"), 9, DEVUPDATE_BINARY);
    namespace fs = std::filesystem;
    const fs::path dir = fs::temp_directory_path() / ("devupdate-entry-" + std::to_string(getpid()));
    fs::create_directories(dir);
    std::ofstream(dir / "fw.bin") << "image";
    fs::create_symlink(dir / "fw.bin", dir / "link.bin");
    fs::create_symlink(dir / "gone.bin", dir / "dangling.bin");
    const std::string d = dir.string() + "/";
    const auto expectRun = [](const std::string& args, const std::string& expected) {
        FILE* pipe = popen((std::string(DEVUPDATE_BINARY) + " " + args + " 2>/dev/null").c_str(), "r");
        std::string output(1 << 16, '\0');
        output.resize(fread(output.data(), 1, output.size(), pipe));
        const int status = pclose(pipe);
        EXPECT_EQ(output, expected) << args;
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << args;
    };
    // The parser's verdicts: the usage text for an argument it does not know, ...
    for (const char* args : {"--update-all --list", "--list --port", "--listx", "--list --forced", "-h --list",
                             "--bogus --device-mode=x"}) {
        expectRun(args, usage);
    }
    // ... an accepted command line, which gets as far as the connection library refusing port 0 ...
    for (const std::string& args : std::vector<std::string>{
             "--port=0 --file= --list", "--port=0 --recover-safe=", "--port=0 --recover-safe",
             "--port=0 --recover-failsafe", "--port=-1 --list", "--port=0 --file=" + d + "link.bin",
             "--port=0 --recover-safe=" + d + "missing.bin"}) {
        expectRun(args, "Error initializing connection: invalid uri\n");
    }
    // ... or an error, the first one met from the left.
    const std::string noAction =
        "Error: One of either --list, --file, --recover-safe or --recover-failsafe must be specified\n";
    const std::string badMode =
        "Error: Invalid device mode specified. Valid modes are 'normal', 'failsafe', or 'safemode'.\n";
    for (const char* args : {"", "--file=", "--all --reboot --force --long-lived --device-name=x"}) {
        expectRun(args, noAction);
    }
    for (const char* args : {"--device-mode=x --bogus", "--device-mode=safemode --list", "--device-mode= --list"}) {
        expectRun(args, badMode);
    }
    for (const char* args : {"--port=abc --list", "--port= --list", "--port=99999999999 --list"}) {
        expectRun(args, "Error: stoi\n");
    }
    expectRun("--file=" + d + "missing.bin", "Error: The specified firmware file did not exist.\n");
    expectRun("--file=" + d + "dangling.bin", "Error: The specified firmware file did not exist.\n");
    expectRun("--file=" + d, "Error: The specified firmware file was not a regular file.\n");
    fs::remove_all(dir);
}

} // namespace
