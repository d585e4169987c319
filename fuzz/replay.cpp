// Replaces the fuzzer: runs a target once with each sample in the given directory.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) {
    LLVMFuzzerInitialize(&argc, &argv);
  }
  int samples = 0;
  for (const auto& sample : std::filesystem::directory_iterator(argv[1])) {
    std::printf("%s\n", sample.path().c_str());
    std::fflush(stdout);  // after a crash the last line names the sample
    std::ifstream file(sample.path(), std::ios::binary);
    const std::vector<std::uint8_t> data(std::istreambuf_iterator<char>(file), {});
    LLVMFuzzerTestOneInput(data.data(), data.size());
    ++samples;
  }
  return samples > 0 ? 0 : 1;
}
