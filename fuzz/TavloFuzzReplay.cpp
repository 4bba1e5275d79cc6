// Runs a fuzz target's entry point, compiled without libFuzzer, over its seed corpus and
// over every single-byte damage of each seed: the ordinary test run keeps what fuzzing
// once found found, with whichever compiler and sanitizers the build uses.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

namespace {
void run(const std::string& bytes) {
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}
}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s CORPUS_FOLDER\n", argv[0]);
    return 2;
  }
  std::size_t seeds = 0;
  std::size_t inputs = 0;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
    if (!entry.is_regular_file()) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    const std::string seed((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ++seeds;
    run(seed);
    for (std::size_t i = 0; i < seed.size(); ++i) {
      for (const char value : {'\x00', '\xFF', '\x0F'}) {
        std::string damaged = seed;
        damaged[i] = value;
        run(damaged);
        ++inputs;
      }
    }
  }
  std::printf("%zu seeds and %zu damaged copies read\n", seeds, inputs);
  return seeds == 0 ? 1 : 0;
}
