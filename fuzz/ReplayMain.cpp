// Runs a fuzz target over the files of the directories (or files) it is given,
// for builds without libFuzzer.

#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool runFile(const std::string& path) {
    FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        std::fprintf(stderr, "cannot open %s\n", path.c_str());
        return false;
    }
    std::vector<uint8_t> bytes;
    uint8_t chunk[4096];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof(chunk), file)) > 0) {
        bytes.insert(bytes.end(), chunk, chunk + n);
    }
    std::fclose(file);
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    int runs = 0;
    for (int i = 1; i < argc; ++i) {
        struct stat info {};
        if (::stat(argv[i], &info) != 0) {
            std::fprintf(stderr, "no such input: %s\n", argv[i]);
            return 1;
        }
        if (!S_ISDIR(info.st_mode)) {
            runs += runFile(argv[i]) ? 1 : 0;
            continue;
        }
        DIR* dir = ::opendir(argv[i]);
        while (dirent* entry = ::readdir(dir)) {
            const std::string name = entry->d_name;
            if (name != "." && name != ".." && runFile(std::string(argv[i]) + "/" + name)) {
                ++runs;
            }
        }
        ::closedir(dir);
    }
    std::printf("replayed %d inputs\n", runs);
    return runs > 0 ? 0 : 1;
}
