// Gives a fuzz target every file of a folder once: libFuzzer's place where there is no libFuzzer.
//     fuzz_TARGET FOLDER
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *count, char ***arguments);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int count, char **arguments)
{
    if (count != 2 || LLVMFuzzerInitialize(&count, &arguments) != 0) {
        return 2;
    }
    int replayed = 0;
    for (const auto &entry : std::filesystem::directory_iterator(arguments[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
        (void)LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
        ++replayed;
    }
    std::fprintf(stderr, "%d inputs replayed\n", replayed);
    return replayed > 0 ? 0 : 1;
}
