#include <functional>
#include <memory>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "ScriptedClient.h"
#include "ToolStateMachine.h"

namespace {

struct ModeCase {
    const char* device;
    DeviceMode expected;
};

void PrintTo(const ModeCase& c, std::ostream* os) {
    *os << c.device;
}

class EvalDeviceModeTable : public ::testing::TestWithParam<ModeCase> {};

TEST_P(EvalDeviceModeTable, MapsSafeModeFlagAndVersion) {
    EXPECT_EQ(evalDeviceMode(parseJson(GetParam().device)), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Devices, EvalDeviceModeTable,
    ::testing::Values(ModeCase{R"({})", DeviceMode::Normal}, ModeCase{R"("not an object")", DeviceMode::Normal},
                      ModeCase{R"({"isSafeModeDevice":false,"safeModeVersion":1})", DeviceMode::Normal},
                      ModeCase{R"({"isSafeModeDevice":"true","safeModeVersion":1})", DeviceMode::Normal},
                      ModeCase{R"({"isSafeModeDevice":1,"safeModeVersion":1})", DeviceMode::Normal},
                      ModeCase{R"({"isSafeModeDevice":true})", DeviceMode::None},
                      ModeCase{R"({"isSafeModeDevice":true,"safeModeVersion":0})", DeviceMode::None},
                      ModeCase{R"({"isSafeModeDevice":true,"safeModeVersion":"1"})", DeviceMode::None},
                      ModeCase{R"({"isSafeModeDevice":true,"safeModeVersion":1.5})", DeviceMode::None},
                      ModeCase{R"({"isSafeModeDevice":true,"safeModeVersion":4294967297})", DeviceMode::None},
                      ModeCase{R"({"isSafeModeDevice":true,"safeModeVersion":1})", DeviceMode::Failsafe},
                      ModeCase{R"({"isSafeModeDevice":true,"safeModeVersion":1.0})", DeviceMode::Failsafe},
                      ModeCase{R"({"isSafeModeDevice":true,"safeModeVersion":2})", DeviceMode::Safe},
                      ModeCase{R"({"isSafeModeDevice":true,"safeModeVersion":7})", DeviceMode::Safe},
                      ModeCase{R"({"isSafeModeDevice":true,"safeModeVersion":-1})", DeviceMode::Safe}));

struct FilterCase {
    std::function<void(ToolConfig&)> filters;
    const char* device;
    bool ignored;
};

void PrintTo(const FilterCase& c, std::ostream* os) {
    *os << c.device;
}

// A normal-mode device with two interfaces.
const char* const kUnit =
    R"({"name":"Unit-8","manufacturer":{"id":"acme"},"product":{"id":"m8","name":"Model 8"},)"
    R"("interfaces":[{"ipAddress":"10.0.0.5","macAddr":"aa:bb:cc:00:11:22"},{"ipAddress":"10.0.0.6","macAddr":"00:00:00:00:00:00"}]})";

class FilterDeviceTable : public ::testing::TestWithParam<FilterCase> {};

TEST_P(FilterDeviceTable, AdmitsOrIgnores) {
    ToolConfig config;
    config.listDevices = true;
    if (GetParam().filters) {
        GetParam().filters(config);
    }
    std::ostringstream out;
    ToolStateMachine machine(config, out, std::make_shared<ScriptedClient>());
    EXPECT_EQ(machine.filterDevice(parseJson(GetParam().device)), GetParam().ignored);
}

INSTANTIATE_TEST_SUITE_P(
    Filters, FilterDeviceTable,
    ::testing::Values(
        // No filters: everything but a mode-None device passes.
        FilterCase{nullptr, R"({})", false},
        FilterCase{nullptr, R"({"isSafeModeDevice":true,"safeModeVersion":0})", true},
        FilterCase{[](ToolConfig& c) { c.deviceModes = {DeviceMode::Normal}; }, R"({})", false},
        FilterCase{[](ToolConfig& c) { c.deviceModes = {DeviceMode::Safe}; }, R"({})", true},
        // Manufacturer and model ignore case, compare ids only, and must both match.
        FilterCase{[](ToolConfig& c) { c.manufacturers = {"ACME"}; }, kUnit, false},
        FilterCase{[](ToolConfig& c) { c.manufacturers = {"acme"}; }, R"({"manufacturer":{"id":4660}})", true},
        FilterCase{[](ToolConfig& c) { c.manufacturers = {"4660"}; }, R"({"manufacturer":{"id":4660}})", true},
        FilterCase{[](ToolConfig& c) { c.models = {"Model 8"}; }, kUnit, true},
        FilterCase{[](ToolConfig& c) { c.models = {"M8"}; }, kUnit, false},
        FilterCase{[](ToolConfig& c) {
                       c.manufacturers = {"acme"};
                       c.models = {"other"};
                   },
                   kUnit, true},
        // An empty filter value matches a missing key.
        FilterCase{[](ToolConfig& c) { c.manufacturers = {""}; }, R"({"name":"x"})", false},
        // Case folding is ASCII only.
        FilterCase{[](ToolConfig& c) { c.deviceNames = {"unit-8"}; }, kUnit, false},
        FilterCase{[](ToolConfig& c) { c.deviceNames = {"\xC3\x89T\xC3\x89"}; }, R"({"name":"\u00e9t\u00e9"})", true},
        FilterCase{[](ToolConfig& c) { c.deviceNames = {"\xC3\xA9T\xC3\xA9"}; }, R"({"name":"\u00e9t\u00e9"})", false},
        FilterCase{[](ToolConfig& c) { c.deviceNames = {"Unit-8 "}; }, kUnit, true},
        // IP addresses compare exactly, on any interface.
        FilterCase{[](ToolConfig& c) { c.deviceIps = {"10.0.0.6"}; }, kUnit, false},
        FilterCase{[](ToolConfig& c) { c.deviceIps = {"010.0.0.5"}; }, kUnit, true},
        FilterCase{[](ToolConfig& c) { c.deviceIps = {"10.0.0.5 "}; }, kUnit, true},
        FilterCase{[](ToolConfig& c) { c.deviceIps = {"10.0.0.5"}; }, R"({"interfaces":{"ipAddress":"10.0.0.5"}})",
                   true},
        FilterCase{[](ToolConfig& c) { c.deviceIps = {"10.0.0.5"}; }, R"({"interfaces":[null]})", true},
        // MAC addresses fold case only; a later interface does not undo a match.
        FilterCase{[](ToolConfig& c) { c.deviceMacs = {"AA:BB:CC:00:11:22"}; }, kUnit, false},
        FilterCase{[](ToolConfig& c) { c.deviceMacs = {"aa-bb-cc-00-11-22"}; }, kUnit, true},
        FilterCase{[](ToolConfig& c) { c.deviceMacs = {"aabbcc001122"}; }, kUnit, true},
        // Name, IP and MAC are one OR group; the other kinds still AND with it.
        FilterCase{[](ToolConfig& c) {
                       c.deviceNames = {"other"};
                       c.deviceIps = {"10.0.0.5"};
                   },
                   kUnit, false},
        FilterCase{[](ToolConfig& c) {
                       c.deviceNames = {"unit-8"};
                       c.deviceIps = {"1.1.1.1"};
                   },
                   R"({"name":"Unit-8"})", false},
        FilterCase{[](ToolConfig& c) {
                       c.deviceNames = {"other"};
                       c.deviceMacs = {"ff"};
                   },
                   kUnit, true},
        FilterCase{[](ToolConfig& c) {
                       c.deviceIps = {"10.0.0.5"};
                       c.models = {"x"};
                   },
                   kUnit, true},
        FilterCase{[](ToolConfig& c) {
                       c.deviceIps = {"10.0.0.5"};
                       c.deviceModes = {DeviceMode::Failsafe};
                   },
                   kUnit, true}));

TEST(FilterDevice, InterfaceThatIsNotAnObjectRaisesTheLibraryError) {
    ToolConfig config;
    config.listDevices = true;
    config.deviceIps = {"10.0.0.5"};
    std::ostringstream out;
    ToolStateMachine machine(config, out, std::make_shared<ScriptedClient>());
    EXPECT_THROW(machine.filterDevice(parseJson(R"({"interfaces":["10.0.0.5"]})")), Json::LogicError);
    // Without address filters the interfaces are not read at all.
    config.deviceIps.clear();
    ToolStateMachine noAddressFilter(config, out, std::make_shared<ScriptedClient>());
    EXPECT_FALSE(noAddressFilter.filterDevice(parseJson(R"({"interfaces":["x"]})")));
}

TEST(CompareIgnoreCase, FoldsAsciiLettersOnly) {
    EXPECT_TRUE(compareIgnoreCase("", ""));
    EXPECT_TRUE(compareIgnoreCase("AbC-9", "aBc-9"));
    EXPECT_FALSE(compareIgnoreCase("abc", "abcd"));
    EXPECT_FALSE(compareIgnoreCase("[", "{"));
    EXPECT_FALSE(compareIgnoreCase("\xC9", "\xE9"));
    EXPECT_TRUE(compareIgnoreCase(std::string("a\0B", 3), std::string("A\0b", 3)));
}

} // namespace
