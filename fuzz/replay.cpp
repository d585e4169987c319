// Replaces the fuzzer: runs a target once with each sample in the given directories.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

// Returns the number of samples.
int RunSamples(const char* directory) {
  int samples = 0;
  for (const auto& sample : std::filesystem::directory_iterator(directory)) {
    std::printf("%s\n", sample.path().c_str());
    std::fflush(stdout);  // after a crash the last line names the sample
    std::ifstream file(sample.path(), std::ios::binary);
    const std::string content(std::istreambuf_iterator<char>(file), {});
    // Exactly as large as the sample, so that AddressSanitizer sees each read after its end.
    const auto data = std::make_unique_for_overwrite<std::uint8_t[]>(content.size());
    std::ranges::copy(content, data.get());
    LLVMFuzzerTestOneInput(data.get(), content.size());
    ++samples;
  }
  return samples;
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) {
    LLVMFuzzerInitialize(&argc, &argv);
  }
  int samples = 0;
  for (int i = 1; i < argc; ++i) {
    samples += RunSamples(argv[i]);
  }
  return samples > 0 ? 0 : 1;
}
