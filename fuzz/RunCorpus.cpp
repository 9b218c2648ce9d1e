// Stands in for libFuzzer where the compiler has none: gives every file of the corpora to the fuzzer once, or, with
// --prefixes, every beginning of every file, as a connection that breaks off would.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* count, char*** arguments);

int main(int count, char** arguments)
{
    if (LLVMFuzzerInitialize != nullptr)
        LLVMFuzzerInitialize(&count, &arguments);
    const bool prefixes = count > 1 && std::string_view(arguments[1]) == "--prefixes";
    int inputs = 0;
    for (int i = prefixes ? 2 : 1; i < count; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(arguments[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::vector<std::uint8_t> bytes(std::istreambuf_iterator<char>(file), {});
            for (std::size_t size = prefixes ? 0 : bytes.size(); size <= bytes.size(); ++size, ++inputs)
                LLVMFuzzerTestOneInput(bytes.data(), size);
        }
    }
    std::printf("%d inputs\n", inputs);
    return inputs > 0 ? 0 : 1;
}
