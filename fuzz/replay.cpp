// Replays inputs through a fuzz harness without libFuzzer: each argument names a file
// that is handed whole to the harness' entry point, as libFuzzer would hand it.
#include <cstdint>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::ifstream file(argv[i], std::ios::binary);
        const std::string input{std::istreambuf_iterator<char>(file), {}};
        if (!file.is_open()) {
            std::cerr << "cannot read " << argv[i] << "\n";
            return 2;
        }
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
    }
    return 0;
}
