// devsim: a stand-in for the local device update service, for tests and demos.
#include "Service.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <limits>
#include <stdexcept>
#include <string>

namespace {

const char* const kUsage = "Usage: devsim [options]\n"
                           "\n"
                           "A simulated device update service on ws://127.0.0.1:<port>.\n"
                           "\n"
                           "Options:\n"
                           "  --port=N              Port to listen on (default 7070; 0 picks a free one)\n"
                           "  --port-file=FILE      Once listening, write the port to FILE (whole, or not yet there)\n"
                           "  --fleet=FILE          Devices to serve, from a JSON file (default: built-in fleet)\n"
                           "  --generate-fleet=N    Serve N synthetic normal-mode devices instead\n"
                           "  --tick-ms=N           Milliseconds between progress events (default 200; 0 = no pause)\n"
                           "  --progress-steps=N    Progress events per job, the last being Done (default 10)\n"
                           "  --record=FILE         Append every frame received from any client to FILE, verbatim\n"
                           "  --help, -h            Show this text\n"
                           "\n"
                           "Limits, each logged when a client reaches it (the other clients go on):\n"
                           "  --max-clients=N       Clients served at once; more get HTTP 503 (default 32)\n"
                           "  --max-unwritten=N     Bytes sent to a client, not yet written, plus 256 a frame: past\n"
                           "                        N/4 its requests wait, past N it is cut off (default 67108864)\n"
                           "  --max-message=N       Bytes in one message from a client; over that, close code 1009\n"
                           "                        (default 16777216)\n"
                           "\n"
                           "Faults, counted per client in protocol messages sent to it:\n"
                           "  --close-after=N       Close the connection after N messages\n"
                           "  --garbage-after=N     After N messages, send one frame \"this is not json\"\n"
                           "  --mute-after=N        After N messages, send nothing more and ignore requests\n"
                           "  --oversize-after=N    After N messages, send one frame of about 33 MB\n"
                           "  --not-object-after=N  After N messages, send one JSON frame that is not an object\n"
                           "  --deep-after=N        After N messages, send one frame of arrays nested 1001 deep\n"
                           "  --drop-after=N        After N messages, drop the TCP connection without a close frame\n"
                           "  --reset-after=N       After N messages, reset the TCP connection (an abortive close)\n"
                           "  --pause-reading-ms=N  After every message, read nothing from that client for N ms\n"
                           "  --binary              Send every message as a binary frame\n"
                           "\n"
                           "Prints \"devsim listening on 127.0.0.1:<port>\" once ready; logs to stderr.\n"
                           "SIGINT or SIGTERM stops it.\n";

bool takeValue(const std::string& arg, const std::string& option, std::string& value) {
    std::string prefix = option + "=";
    if (arg.compare(0, prefix.size(), prefix) != 0)
        return false;
    value = arg.substr(prefix.size());
    return true;
}

unsigned long toNumber(const std::string& option, const std::string& text, unsigned long max, unsigned long min = 0) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 10 ||
        std::stoull(text) > max || std::stoull(text) < min) {
        std::cerr << "devsim: " << option << " needs a whole number "
                  << (min ? "from " + std::to_string(min) + " " : std::string()) << "up to " << max << "\n";
        std::exit(2);
    }
    return std::stoul(text);
}

// Written beside the file and renamed into place, so that whoever waits for the file
// never reads half of it.
void writePortFile(const std::string& path, unsigned port) {
    const std::string part = path + ".part";
    std::ofstream out(part);
    out << port << '\n';
    out.close();
    if (!out || std::rename(part.c_str(), path.c_str()) != 0) {
        std::remove(part.c_str());
        throw std::runtime_error("cannot write port file " + path);
    }
}

} // namespace

int main(int argc, char** argv) {
    devsim::Options options;
    std::string fleetFile, portFile;
    long generate = -1;
    const unsigned long kMaxCount = std::numeric_limits<int>::max();
    const unsigned long kMaxBytes = 4000000000;

    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i], value;
        if (arg == "--help" || arg == "-h") {
            std::cout << kUsage;
            return 0;
        } else if (arg == "--binary") {
            options.binary = true;
        } else if (takeValue(arg, "--port", value)) {
            options.port = toNumber("--port", value, 65535);
        } else if (takeValue(arg, "--port-file", value)) {
            portFile = value;
        } else if (takeValue(arg, "--fleet", value)) {
            fleetFile = value;
        } else if (takeValue(arg, "--generate-fleet", value)) {
            generate = static_cast<long>(toNumber("--generate-fleet", value, 1000000));
        } else if (takeValue(arg, "--tick-ms", value)) {
            options.tickMs = toNumber("--tick-ms", value, 3600000);
        } else if (takeValue(arg, "--progress-steps", value)) {
            options.progressSteps = toNumber("--progress-steps", value, 100000000);
            if (options.progressSteps == 0) {
                std::cerr << "devsim: --progress-steps must be at least 1\n";
                return 2;
            }
        } else if (takeValue(arg, "--max-clients", value)) {
            options.maxClients = toNumber("--max-clients", value, 1000000, 1);
        } else if (takeValue(arg, "--max-unwritten", value)) {
            options.maxUnwritten = toNumber("--max-unwritten", value, kMaxBytes, 1);
        } else if (takeValue(arg, "--max-message", value)) {
            options.maxMessage = toNumber("--max-message", value, kMaxBytes, 1);
        } else if (takeValue(arg, "--record", value)) {
            options.recordFile = value;
        } else if (takeValue(arg, "--close-after", value)) {
            options.closeAfter = static_cast<long>(toNumber("--close-after", value, kMaxCount));
        } else if (takeValue(arg, "--garbage-after", value)) {
            options.garbageAfter = static_cast<long>(toNumber("--garbage-after", value, kMaxCount));
        } else if (takeValue(arg, "--mute-after", value)) {
            options.muteAfter = static_cast<long>(toNumber("--mute-after", value, kMaxCount));
        } else if (takeValue(arg, "--oversize-after", value)) {
            options.oversizeAfter = static_cast<long>(toNumber("--oversize-after", value, kMaxCount));
        } else if (takeValue(arg, "--not-object-after", value)) {
            options.notObjectAfter = static_cast<long>(toNumber("--not-object-after", value, kMaxCount));
        } else if (takeValue(arg, "--deep-after", value)) {
            options.deepAfter = static_cast<long>(toNumber("--deep-after", value, kMaxCount));
        } else if (takeValue(arg, "--drop-after", value)) {
            options.dropAfter = static_cast<long>(toNumber("--drop-after", value, kMaxCount));
        } else if (takeValue(arg, "--reset-after", value)) {
            options.resetAfter = static_cast<long>(toNumber("--reset-after", value, kMaxCount));
        } else if (takeValue(arg, "--pause-reading-ms", value)) {
            options.pauseReadingMs = static_cast<long>(toNumber("--pause-reading-ms", value, 3600000));
        } else {
            std::cerr << "devsim: unknown option " << arg << " (see --help)\n";
            return 2;
        }
    }
    if (!fleetFile.empty() && generate >= 0) {
        std::cerr << "devsim: --fleet and --generate-fleet exclude each other\n";
        return 2;
    }

    // A reader that went away must not kill the service mid-write.
    std::signal(SIGPIPE, SIG_IGN);

    try {
        devsim::Fleet fleet = !fleetFile.empty() ? devsim::Fleet::fromFile(fleetFile)
                              : generate >= 0    ? devsim::Fleet::generated(static_cast<unsigned>(generate))
                                                 : devsim::Fleet::builtIn();
        asio::io_context io;
        devsim::Service service(io, options, std::move(fleet));
        unsigned port = service.start();

        asio::steady_timer deadline(io);
        asio::signal_set signals(io, SIGINT, SIGTERM);
        signals.async_wait([&](const asio::error_code& ec, int) {
            if (ec)
                return;
            service.stop([&io] { io.stop(); });
            // Give close handshakes a moment, but never hang on a silent peer.
            deadline.expires_after(std::chrono::milliseconds(500));
            deadline.async_wait([&io](const asio::error_code&) { io.stop(); });
        });

        if (!portFile.empty())
            writePortFile(portFile, port);
        std::cout << "devsim listening on 127.0.0.1:" << port << std::endl;
        io.run();
    } catch (const std::exception& e) {
        std::cerr << "devsim: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
