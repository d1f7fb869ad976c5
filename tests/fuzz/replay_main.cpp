// Runs a fuzz target once over every file of its committed corpus, without
// the fuzzing engine: the regression check of the test command, built with
// the same compiler and sanitizers as the rest of the suite.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv)
{
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    int inputs = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argc > 1 ? argv[1] : ".")) {
        std::ifstream in(entry.path(), std::ios::binary);
        std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(data.data(), data.size());
        inputs++;
    }
    printf("replay: %d inputs\n", inputs);
    return inputs > 0 ? 0 : 1;
}
