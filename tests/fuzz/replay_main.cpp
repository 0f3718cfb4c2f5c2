// A fuzz target without libFuzzer, run once over every file of the directories
// named (its seed corpus, the inputs that once crashed it): every test build
// keeps a fixed crash fixed. A failing check aborts, as under the fuzzer.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    std::size_t inputs = 0;
    for (int i = 1; i < argc; ++i) {
        std::error_code none;  // a target may have no regression inputs yet
        for (const auto& entry : std::filesystem::directory_iterator(argv[i], none)) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::vector<std::uint8_t> input((std::istreambuf_iterator<char>(file)),
                                                  std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(input.data(), input.size());
            ++inputs;
        }
    }
    std::printf("%zu inputs replayed\n", inputs);
    return inputs > 0 ? 0 : 1;
}
