#include "app/options.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "log/log.h"

namespace qel {
namespace {

constexpr long kMaxLogLevel = 3;

void PrintUsage(const char* program) {
  std::puts("Corvessan Tandrel Tool usage:");
  std::printf(" %s [options]\n", program);
  std::puts("Options:");
  std::puts(" -h   : This help");
  std::printf(" -r   : Service poll period (in milliseconds) [%u, %u], default: %d\n",
              static_cast<unsigned>(kMinPollPeriodMs), static_cast<unsigned>(kMaxPollPeriodMs), kDefaultPollPeriodMs);
  std::printf(" -l   : Logging level [0, 3], default %d\n", GetLogLevel());
  std::puts(" -v   : Verbose logging, set log level to 3");
}

}  // namespace

Options ParseCommandLine(int argc, char** argv) {
  Options options;
  for (int option = 0; (option = getopt(argc, argv, "l:r:hv")) != -1;) {
    switch (option) {
      case 'r': {
        const long period = std::strtol(optarg, nullptr, 10);
        if (period >= kMinPollPeriodMs && period <= kMaxPollPeriodMs) {
          options.poll_period_ms = static_cast<std::int32_t>(period);
        }
        LogInfo(kModuleAgent, "Poll period was set to %d ms", options.poll_period_ms);
        break;
      }
      case 'l': {
        const long level = std::strtol(optarg, nullptr, 10);
        if (level >= 0 && level <= kMaxLogLevel) {
          SetLogLevel(static_cast<std::int32_t>(level));
        }
        break;
      }
      case 'v':
        SetLogLevel(kLogDebug);
        break;
      case 'h':
        PrintUsage(argv[0]);
        options.help = true;
        return options;
      default:
        break;  // getopt() has printed the error
    }
  }
  return options;
}

}  // namespace qel
