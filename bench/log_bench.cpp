// The time of a log line, compared with only writing the same bytes.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "log/log.h"

namespace {

namespace fs = std::filesystem;

// A directory for the log.
class LogDirectory {
 public:
  LogDirectory() {
    std::string name = (fs::temp_directory_path() / "log_bench.XXXXXX").string();
    path_ = mkdtemp(name.data());
    qel::SetLogDirectory(path_.c_str());
    qel::SetLogLevel(qel::kLogInfo);
  }
  ~LogDirectory() { fs::remove_all(path_); }
  LogDirectory(const LogDirectory&) = delete;
  LogDirectory& operator=(const LogDirectory&) = delete;

  fs::path File() const { return path_ / "corvessan.log"; }

 private:
  fs::path path_;
};

constexpr std::int64_t kLines = 100'000;  // for each measurement, so that both write to files of the same sizes

void LogLine() {
  qel::LogInfo(qel::kModuleAgent, "Running app: pid=%d name='%s' path='%s'", 4711, "Text Editor", "/usr/bin/editor");
}

void BM_BareWrite(benchmark::State& state) {
  const LogDirectory directory;
  LogLine();
  std::string line;
  std::getline(std::ifstream(directory.File()), line);
  line += '\n';
  const int file = open(directory.File().c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  for (auto _ : state) {
    benchmark::DoNotOptimize(write(file, line.data(), line.size()));
  }
  close(file);
}
BENCHMARK(BM_BareWrite)->Iterations(kLines);

void BM_Line(benchmark::State& state) {
  const LogDirectory directory;
  for (auto _ : state) {
    LogLine();
  }
}
BENCHMARK(BM_Line)->Iterations(kLines);

void BM_LineBelowThreshold(benchmark::State& state) {
  qel::SetLogLevel(qel::kLogError);
  for (auto _ : state) {
    LogLine();
  }
}
BENCHMARK(BM_LineBelowThreshold);

}  // namespace

BENCHMARK_MAIN();
