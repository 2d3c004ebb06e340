// Replays a fuzz target's corpus with the normal compiler: every file named on
// the command line, or found in a folder named there, goes once through
// LLVMFuzzerTestOneInput. ctest runs it over each target's corpus, so an input
// that once crashed a parser is tried again on every build. A folder with no
// input is an error: a replay that replays nothing proves nothing.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace fs = std::filesystem;

int main(int argc, char **argv) {
  if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; i++) {
    fs::path p = argv[i];
    std::error_code ec;
    if (fs::is_directory(p, ec)) {
      for (const auto &e : fs::directory_iterator(p))
        if (e.is_regular_file()) inputs.push_back(e.path());
    } else if (fs::is_regular_file(p, ec)) {
      inputs.push_back(p);
    } else {
      std::fprintf(stderr, "replay: %s: no such file or folder\n", argv[i]);
      return 2;
    }
  }
  if (inputs.empty()) {
    std::fprintf(stderr, "replay: no input to replay\n");
    return 2;
  }
  std::sort(inputs.begin(), inputs.end());
  for (const auto &p : inputs) {
    std::ifstream in(p, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // An exact-size heap copy, so that a read past the end is a real overflow.
    auto *copy = new uint8_t[bytes.size() ? bytes.size() : 1];
    std::copy(bytes.begin(), bytes.end(), copy);
    LLVMFuzzerTestOneInput(copy, bytes.size());
    delete[] copy;
  }
  std::printf("replay: %zu inputs replayed\n", inputs.size());
  return 0;
}
