// In place of the fuzzing engine: runs a harness once over each input named, or over all files of
// each directory named. What the corpora hold is thereby a test of every build.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdint.h>
#include <stdio.h>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static std::vector<std::filesystem::path> list_inputs(const std::filesystem::path &named)
{
    std::vector<std::filesystem::path> inputs;
    if (std::filesystem::is_directory(named)) {
        const std::filesystem::directory_iterator entries(named);
        inputs.assign(begin(entries), end(entries));
        std::sort(inputs.begin(), inputs.end());
    } else {
        inputs.push_back(named);
    }
    return inputs;
}

int main(int argc, char **argv)
{
    (void)LLVMFuzzerInitialize(&argc, &argv);
    size_t replayed = 0;
    for (int i = 1; i < argc; i++) {
        for (const std::filesystem::path &path : list_inputs(argv[i])) {
            // The last name printed is the finding's.
            (void)fprintf(stderr, "%s\n", path.c_str());
            std::ifstream file(path, std::ios::binary);
            const std::string bytes(std::istreambuf_iterator<char>(file), {});
            (void)LLVMFuzzerTestOneInput((const uint8_t *)bytes.data(), bytes.size());
            replayed++;
        }
    }
    (void)fprintf(stderr, "%zu inputs replayed\n", replayed);
    return replayed > 0 ? 0 : 1;
}
