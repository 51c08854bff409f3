// replay.cpp - runs a fuzz target on the files of a folder. usage: <target> FOLDER
#include "fuzz.h"

#include <filesystem>
#include <fstream>
#include <iterator>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(file)), {});
        // A heap copy of the exact size, so that a sanitizer finds an access past its end.
        auto* const data = new std::uint8_t[bytes.size()];
        std::copy(bytes.begin(), bytes.end(), data);
        LLVMFuzzerTestOneInput(data, bytes.size());
        delete[] data;
        ++count;
    }
    std::printf("%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
