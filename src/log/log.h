// The process-wide logger: one line per message, appended to the agent's log file.
//
// The file is opened at the first message and looked at again at most once per second, so that a file which somebody
// removed or rotated is created anew. Every function here may be called from any thread, and LogMessage() and its
// shorthands also from a signal handler that has declared itself with SignalHandlerScope. Logging never changes errno
// and never reports a failure of its own: a line that cannot be written is lost.
#pragma once

#include <cstdint>

namespace qel {

// Levels of messages, and of the threshold below which messages are wanted.
inline constexpr std::int32_t kLogError = 0;
inline constexpr std::int32_t kLogWarning = 1;
inline constexpr std::int32_t kLogInfo = 2;
inline constexpr std::int32_t kLogDebug = 3;

// Module tags: who speaks.
inline constexpr const char* kModuleAgent = "qeltdl";      // the agent's own logic
inline constexpr const char* kModuleService = "QelCC";     // the Tools Service framework
inline constexpr const char* kModuleLoader = "QelCCBase";  // desktop library loaders, gate device handle

// Sets the threshold: a message of level L is wanted when the threshold is at least L. -1 stands for 1, the initial
// value.
void SetLogLevel(std::int32_t level);
std::int32_t GetLogLevel();

// Puts the log file into another directory than /var/log, from the next line on. A directory in which no file can be
// opened is replaced, once per process, by ".corvessan" in the home of the effective user.
void SetLogDirectory(const char* directory);

// True when a message of this level is wanted. Errors always are.
inline bool IsLogWanted(std::int32_t level) {
  return level <= kLogError || GetLogLevel() >= level;
}

// Formats as printf does and writes one line, whatever the threshold. `tag` stands before the module and is empty
// everywhere in this program. Lines are cut at 4094 bytes. Control characters of the message (ASCII's, and U+0080 to
// U+009F in UTF-8) are written as \xNN, a byte each, but for a line end that closes it.
[[gnu::format(printf, 4, 5)]] void LogMessage(const char* tag, const char* module, std::int32_t level,
                                              const char* format, ...);

// The shorthands the program uses: LogMessage() with an empty tag, if a message of that level is wanted.
[[gnu::format(printf, 2, 3)]] void LogError(const char* module, const char* format, ...);
[[gnu::format(printf, 2, 3)]] void LogWarning(const char* module, const char* format, ...);
[[gnu::format(printf, 2, 3)]] void LogInfo(const char* module, const char* format, ...);

// To be held by a signal handler while it logs: the logger then uses only what is safe in a handler, whatever the
// interrupted thread was doing (the time zone is the one of the last ordinary line, and a log directory that turns out
// unwritable is not replaced).
class SignalHandlerScope {
 public:
  SignalHandlerScope();
  ~SignalHandlerScope();
  SignalHandlerScope(const SignalHandlerScope&) = delete;
  SignalHandlerScope& operator=(const SignalHandlerScope&) = delete;

 private:
  bool outer_;
};

}  // namespace qel
