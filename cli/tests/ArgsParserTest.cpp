#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ArgsParser.h"

namespace {

enum class Outcome { Parsed, Usage, InvalidArgument, OutOfRange };

struct ParseCase {
    std::vector<std::string> args;
    Outcome outcome;
    std::string error;                     // what() for the exception outcomes
    std::function<void(ToolConfig&)> edit; // the expected record, from a --list-only baseline
};

void PrintTo(const ParseCase& c, std::ostream* os) {
    for (const std::string& a : c.args) {
        *os << a << ' ';
    }
}

const char* const kNoAction = "One of either --list, --file, --recover-safe or --recover-failsafe must be specified";
const char* const kBadMode = "Invalid device mode specified. Valid modes are 'normal', 'failsafe', or 'safemode'.";

bool sameConfig(const ToolConfig& a, const ToolConfig& b) {
    return a.updateAll == b.updateAll && a.listDevices == b.listDevices && a.longLived == b.longLived &&
           a.reboot == b.reboot && a.port == b.port && a.firmwareFile == b.firmwareFile &&
           a.recoverSafeFile == b.recoverSafeFile && a.recoverSafe == b.recoverSafe &&
           a.recoverFailsafe == b.recoverFailsafe && a.force == b.force && a.deviceModes == b.deviceModes &&
           a.deviceNames == b.deviceNames && a.deviceIps == b.deviceIps && a.deviceMacs == b.deviceMacs &&
           a.manufacturers == b.manufacturers && a.models == b.models;
}

std::function<void(ToolConfig&)> listOnly(std::function<void(ToolConfig&)> more = nullptr) {
    return [more](ToolConfig& c) {
        c.listDevices = true;
        if (more) {
            more(c);
        }
    };
}

const std::vector<ParseCase> kCases = {
    {{}, Outcome::InvalidArgument, kNoAction, nullptr},
    {{"--list"}, Outcome::Parsed, "", listOnly()},
    {{"--all", "--list"}, Outcome::Parsed, "", listOnly([](ToolConfig& c) { c.updateAll = true; })},
    {{"-a", "-f", "--list", "--list"}, Outcome::Parsed, "", listOnly([](ToolConfig& c) {
         c.updateAll = true;
         c.force = true;
     })},
    // The usage text advertises --update-all, the parser only knows --all.
    {{"--update-all", "--list"}, Outcome::Usage, "", nullptr},
    {{"--help"}, Outcome::Usage, "", nullptr},
    {{"-h", "--list"}, Outcome::Usage, "", nullptr},
    {{"--list", "--port"}, Outcome::Usage, "", nullptr},
    {{"--listx"}, Outcome::Usage, "", nullptr},
    {{"--list", "--forced"}, Outcome::Usage, "", nullptr},
    {{"--LIST"}, Outcome::Usage, "", nullptr},
    {{"--device-mode=SAFE", "--device-mode=Normal", "--device-mode=safe", "--list"},
     Outcome::Parsed,
     "",
     listOnly([](ToolConfig& c) {
         c.deviceModes = {DeviceMode::Normal, DeviceMode::Safe};
     })},
    {{"--device-mode=FailSafe", "--list"}, Outcome::Parsed, "", listOnly([](ToolConfig& c) {
         c.deviceModes = {DeviceMode::Failsafe};
     })},
    {{"--device-mode=safemode", "--list"}, Outcome::InvalidArgument, kBadMode, nullptr},
    {{"--device-mode=", "--list"}, Outcome::InvalidArgument, kBadMode, nullptr},
    // Left to right, first failure wins; the action check comes last.
    {{"--device-mode=x", "--bogus"}, Outcome::InvalidArgument, kBadMode, nullptr},
    {{"--bogus", "--device-mode=x"}, Outcome::Usage, "", nullptr},
    {{"--bogus"}, Outcome::Usage, "", nullptr},
    {{"--file=", "--list"}, Outcome::Parsed, "", listOnly()},
    {{"--file="}, Outcome::InvalidArgument, kNoAction, nullptr},
    {{"--all", "--reboot", "--force", "--long-lived", "--device-name=x"}, Outcome::InvalidArgument, kNoAction, nullptr},
    {{"--file=a.bin", "--file=dir/b.bin"}, Outcome::Parsed, "", [](ToolConfig& c) { c.firmwareFile = "dir/b.bin"; }},
    {{"--recover-safe="}, Outcome::Parsed, "", [](ToolConfig& c) { c.recoverSafe = true; }},
    {{"--recover-safe=img.bin"},
     Outcome::Parsed,
     "",
     [](ToolConfig& c) {
         c.recoverSafe = true;
         c.recoverSafeFile = "img.bin";
     }},
    {{"--recover-safe", "--recover-failsafe"},
     Outcome::Parsed,
     "",
     [](ToolConfig& c) {
         c.recoverSafe = true;
         c.recoverFailsafe = true;
     }},
    {{"--port=0", "--list"}, Outcome::Parsed, "", listOnly([](ToolConfig& c) { c.port = 0; })},
    {{"--port=8080x", "--list"}, Outcome::Parsed, "", listOnly([](ToolConfig& c) { c.port = 8080; })},
    {{"--port=-1", "--list", "--port= 99999"}, Outcome::Parsed, "", listOnly([](ToolConfig& c) { c.port = 99999; })},
    {{"--port=abc", "--list"}, Outcome::InvalidArgument, "stoi", nullptr},
    {{"--port=", "--list"}, Outcome::InvalidArgument, "stoi", nullptr},
    {{"--port=99999999999", "--list"}, Outcome::OutOfRange, "stoi", nullptr},
    {{"--device-name=A", "--device-name=A", "--device-name=b", "--device-ip=10.0.0.1 ", "--device-mac=AA:bb",
      "--manufacturer=", "--model=x=y", "--list"},
     Outcome::Parsed,
     "",
     listOnly([](ToolConfig& c) {
         c.deviceNames = {"A", "b"};
         c.deviceIps = {"10.0.0.1 "};
         c.deviceMacs = {"AA:bb"};
         c.manufacturers = {""};
         c.models = {"x=y"};
     })},
};

class ParseTable : public ::testing::TestWithParam<ParseCase> {};

TEST_P(ParseTable, GivesTheExpectedRecordOrFailure) {
    const ParseCase& c = GetParam();
    std::vector<const char*> argv{"devupdate"};
    for (const std::string& a : c.args) {
        argv.push_back(a.c_str());
    }
    const int argc = static_cast<int>(argv.size());
    switch (c.outcome) {
    case Outcome::Parsed: {
        auto config = ArgumentParser::parseArguments(argc, argv.data());
        ASSERT_TRUE(config);
        ToolConfig expected;
        expected.port = 7070;
        c.edit(expected);
        EXPECT_TRUE(sameConfig(*config, expected));
        break;
    }
    case Outcome::Usage:
        EXPECT_EQ(ArgumentParser::parseArguments(argc, argv.data()), nullptr);
        break;
    case Outcome::InvalidArgument:
        try {
            ArgumentParser::parseArguments(argc, argv.data());
            FAIL() << "no exception";
        } catch (const std::invalid_argument& e) {
            EXPECT_EQ(std::string(e.what()), c.error);
        }
        break;
    case Outcome::OutOfRange:
        EXPECT_THROW(ArgumentParser::parseArguments(argc, argv.data()), std::out_of_range);
        break;
    }
}

INSTANTIATE_TEST_SUITE_P(Arguments, ParseTable, ::testing::ValuesIn(kCases));

TEST(ArgumentParser, DefaultPortIsAModifiableStatic) {
    const int saved = ArgumentParser::DEFAULT_PORT;
    ArgumentParser::DEFAULT_PORT = 9000;
    const char* argv[] = {"devupdate", "--list"};
    EXPECT_EQ(ArgumentParser::parseArguments(2, argv)->port, 9000);
    ArgumentParser::DEFAULT_PORT = saved;
}

} // namespace
