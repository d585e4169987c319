// The process-wide logger: one line per message, appended to the agent's log file.
//
// The file is opened at the first message. At most once per second the logger checks whether the path still leads to
// this file, and creates a new file when the old one was removed or rotated. Any thread may call every function here. A
// signal handler may call LogMessage() and its short forms while it holds a SignalHandlerScope. Logging never changes
// errno and reports no errors: a line that cannot be written is lost.
#pragma once

#include <cstdint>

namespace qel {

// Levels of messages. The threshold (SetLogLevel()) uses the same numbers.
inline constexpr std::int32_t kLogError = 0;
inline constexpr std::int32_t kLogWarning = 1;
inline constexpr std::int32_t kLogInfo = 2;
inline constexpr std::int32_t kLogDebug = 3;

// Module tags: the part of the program that writes the message.
inline constexpr const char* kModuleAgent = "qeltdl";      // the agent's own logic
inline constexpr const char* kModuleService = "QelCC";     // the Tools Service framework
inline constexpr const char* kModuleLoader = "QelCCBase";  // desktop library loaders, gate device handle

// Sets the threshold: messages up to this level are written. Its initial value is 1; -1 also means 1.
void SetLogLevel(std::int32_t level);
std::int32_t GetLogLevel();

// Sets the directory of the log file, instead of /var/log, from the next line on. When no file can be opened in the
// current directory, the log moves, once per process, to ".corvessan" in the home of the effective user.
void SetLogDirectory(const char* directory);

// True when messages of this level are written. Errors always are.
inline bool IsLogWanted(std::int32_t level) {
  return level <= kLogError || GetLogLevel() >= level;
}

// Formats like printf() and writes one line; the threshold is not checked. `tag` is printed before the module; this
// program always passes an empty one. Lines are cut at 4094 bytes. Each byte of a control character (ASCII, and U+0080
// to U+009F in UTF-8) is written as \xNN, except for a newline at the end of the message.
[[gnu::format(printf, 4, 5)]] void LogMessage(const char* tag, const char* module, std::int32_t level,
                                              const char* format, ...);

// Short forms: LogMessage() with an empty tag, when messages of that level are written.
[[gnu::format(printf, 2, 3)]] void LogError(const char* module, const char* format, ...);
[[gnu::format(printf, 2, 3)]] void LogWarning(const char* module, const char* format, ...);
[[gnu::format(printf, 2, 3)]] void LogInfo(const char* module, const char* format, ...);

// A signal handler must hold an object of this class while it logs. The logger then calls only functions that are safe
// in a handler: it uses the time zone of the last line that was written outside of a handler, and does not move the log
// to the home directory.
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
