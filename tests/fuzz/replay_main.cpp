// Runs a fuzz target once over every file of its committed corpus, without
// the fuzzing engine: the regression check of the test command, built with
// the same compiler and sanitizers as the rest of the suite.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv)
{
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; i++) {
        std::filesystem::path arg(argv[i]);
        if (!std::filesystem::is_directory(arg)) {
            inputs.push_back(arg);
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(arg))
            if (entry.is_regular_file()) inputs.push_back(entry.path());
    }
    if (inputs.empty()) {
        fprintf(stderr, "replay: no corpus files given\n");
        return 1;
    }
    for (const auto& path : inputs) {
        std::ifstream in(path, std::ios::binary);
        std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    printf("replay: %zu inputs\n", inputs.size());
    return 0;
}
