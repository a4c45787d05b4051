// Replays every file under the given directories through the fuzz target, for
// builds without libFuzzer: the seed corpus and kept crash inputs stay regression tests.
#include <stdint.h>
#include <stdio.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    int n = 0;
    for (int i = 1; i < argc; i++) {
        for (auto &e : std::filesystem::recursive_directory_iterator(argv[i])) {
            if (!e.is_regular_file())
                continue;
            std::ifstream f(e.path(), std::ios::binary);
            std::vector<uint8_t> b((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(b.data(), b.size());
            n++;
        }
    }
    printf("replayed %d inputs\n", n);
    return n > 0 ? 0 : 1;
}
