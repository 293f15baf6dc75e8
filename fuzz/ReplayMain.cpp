// Runs a harness over the files of its kept corpus, once each, without the fuzzer: what the
// tests do with every input the fuzzing kept, and every fault it found (the regression files),
// in the ordinary and the sanitized builds.
//
//   <harness>-replay CORPUS_FOLDER
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS_FOLDER\n", argv[0]);
        return 2;
    }
    std::error_code error;
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1], error)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path());
        }
    }
    if (error || files.empty()) {
        std::fprintf(stderr, "%s: no corpus in %s\n", argv[0], argv[1]);
        return 2;
    }
    for (const auto& file : files) {
        std::ifstream in(file, std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(in), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%s: %zu inputs\n", argv[0], files.size());
    return 0;
}
