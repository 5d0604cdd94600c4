// Runs a fuzz target over files, without libFuzzer: fuzz_<name> FILE_OR_DIRECTORY...

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

namespace fs = std::filesystem;

int Replay(const fs::path& path) {
  if (fs::is_directory(path)) {
    int count = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
      count += Replay(entry.path());
    }
    return count;
  }
  std::fprintf(stderr, "%s\n", path.c_str());
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(content.data()), content.size());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  try {
    int count = 0;
    for (int i = 1; i < argc; ++i) count += Replay(argv[i]);
    std::fprintf(stderr, "%d inputs replayed\n", count);
    return count > 0 ? 0 : 1;  // a corpus that was not found is no pass
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
