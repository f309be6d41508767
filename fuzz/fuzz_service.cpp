// Fuzzes what a client can send devsim: each line of the input is one frame (a line that
// starts with byte 0x01 is a binary frame of the rest), handled by the service for a client
// of its own while the jobs it starts run to their end. Nothing may escape the service, and
// whatever the frames hold, each line devsim logs stays one line of its own, free of
// control characters.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "Service.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::ostringstream log;
    std::streambuf* const terminal = std::cerr.rdbuf(log.rdbuf());
    {
        asio::io_context io;
        devsim::Options options;
        options.tickMs = 0;
        options.progressSteps = 3;
        devsim::Service service(io, options, devsim::Fleet::builtIn());
        const auto client = service.addUnconnectedClient();
        for (std::size_t start = 0; start <= input.size();) {
            const std::size_t end = std::min(input.find('\n', start), input.size());
            const bool binary = end > start && input[start] == '\x01';
            service.handleFrame(client, input.substr(start + binary, end - start - binary), binary);
            io.run();
            io.restart();
            start = end + 1;
        }
    }
    std::cerr.rdbuf(terminal);
    std::istringstream lines(log.str());
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 8, "devsim: ") != 0 || std::any_of(line.begin(), line.end(), [](char c) {
                return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
            })) {
            std::fprintf(stderr, "fuzz_service: a log line that is not one printable line: %s\n", line.c_str());
            std::abort();
        }
    }
    return 0;
}
