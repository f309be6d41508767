#pragma once

#include <memory>

#include "Main.h"

class ArgumentParser {
public:
    // Deliberately a modifiable static: the parser and the usage text both read it.
    static int DEFAULT_PORT;

    // Returns the parsed configuration, or an empty pointer for an argument it does
    // not know (the caller then prints the usage text). Throws std::invalid_argument
    // for a bad device mode or a missing action; a bad port value throws whatever
    // std::stoi throws.
    static std::unique_ptr<ToolConfig> parseArguments(int argc, const char* const argv[]);
};
