#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "ScriptedClient.h"
#include "ToolStateMachine.h"

namespace {

std::string cells(int equals, bool head, int blanks) {
    return std::string(equals, '=') + (head ? ">" : "") + std::string(blanks, ' ');
}

struct BarCase {
    int percent;
    std::string status;
    std::string expected;
};

void PrintTo(const BarCase& c, std::ostream* os) {
    *os << c.percent;
}

class ProgressBarTable : public ::testing::TestWithParam<BarCase> {};

TEST_P(ProgressBarTable, DrawsHeadAndNumberUnclamped) {
    const BarCase& c = GetParam();
    std::ostringstream out;
    printProgressBar(out, "Unit-8", c.percent, c.status);
    EXPECT_EQ(out.str(), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Percentages, ProgressBarTable,
    ::testing::Values(BarCase{0, "", "Updating Unit-8 : [" + cells(0, true, 49) + "] 0%"},
                      BarCase{37, "", "Updating Unit-8 : [" + cells(18, true, 31) + "] 37%"},
                      BarCase{50, "", "Updating Unit-8 : [" + cells(25, true, 24) + "] 50%"},
                      BarCase{99, "", "Updating Unit-8 : [" + cells(49, true, 0) + "] 99%"},
                      BarCase{100, "SUCCESS", "Updating Unit-8 : [" + cells(50, false, 0) + "] 100% - SUCCESS"},
                      BarCase{250, "", "Updating Unit-8 : [" + cells(50, false, 0) + "] 250%"},
                      BarCase{-1, "", "Updating Unit-8 : [" + cells(0, true, 49) + "] -1%"},
                      BarCase{-2, "x\r\ny", "Updating Unit-8 : [" + cells(0, false, 50) + "] -2% - x\r\ny"},
                      // The percent times 50 wraps in 32 bits instead of overflowing.
                      BarCase{2147483647, "", "Updating Unit-8 : [" + cells(0, true, 49) + "] 2147483647%"},
                      BarCase{-2147483647 - 1, "", "Updating Unit-8 : [" + cells(0, true, 49) + "] -2147483648%"}));

struct DeviceCase {
    const char* device;
    const char* expected;
};

void PrintTo(const DeviceCase& c, std::ostream* os) {
    *os << c.device;
}

class DeviceLineTable : public ::testing::TestWithParam<DeviceCase> {};

TEST_P(DeviceLineTable, PrintsFourFieldsWithFallbacks) {
    std::ostringstream out;
    printDevice(out, parseJson(GetParam().device));
    EXPECT_EQ(out.str(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Devices, DeviceLineTable,
    ::testing::Values(
        DeviceCase{R"({})", "?,?,?,?\n"}, DeviceCase{R"([1,2])", "?,?,?,?\n"},
        DeviceCase{R"({"name":"Unit-8","manufacturer":{"name":"Acme"},"product":{"name":"Model 8","version":"4.2.0"}})",
                   "Unit-8,Acme,Model 8,4.2.0\n"},
        DeviceCase{R"({"name":"a","product":{"versionString":"2.0","version":"1.0"}})", "a,?,?,2.0\n"},
        DeviceCase{R"({"name":"a","product":{"versionString":"","version":"1.0"}})", "a,?,?,1.0\n"},
        DeviceCase{R"({"name":"a","product":{"versionString":""}})", "a,?,?,?\n"},
        DeviceCase{R"({"name":"a","product":{"version":""}})", "a,?,?,\n"},
        DeviceCase{R"({"name":"a","product":{"versionString":7,"version":8}})", "a,?,?,?\n"},
        DeviceCase{R"({"name":5,"manufacturer":"Acme","product":["x"]})", "?,?,?,?\n"},
        DeviceCase{R"({"name":"a,b","manufacturer":{"name":"M"},"product":{"name":"P"}})", "a,b,M,P,?\n"}));

TEST(DeviceModeWord, NamesEveryValue) {
    EXPECT_EQ(deviceModeWord(DeviceMode::Normal), "Normal");
    EXPECT_EQ(deviceModeWord(DeviceMode::Failsafe), "Failsafe");
    EXPECT_EQ(deviceModeWord(DeviceMode::Safe), "Safe");
    EXPECT_EQ(deviceModeWord(DeviceMode::None), "None");
    EXPECT_EQ(deviceModeWord(static_cast<DeviceMode>(9)), "None");
}

} // namespace
