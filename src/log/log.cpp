#include "log/log.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <new>

namespace qel {
namespace {

constexpr const char* kDefaultPath = "/var/log/corvessan.log";
constexpr const char* kFileName = "corvessan.log";
constexpr std::size_t kPathSize = 1024;
constexpr int kMaxDirectory = 1000;  // leaves room for the file name
constexpr std::size_t kLineSize = 4096;
constexpr std::size_t kMaxLineText = 4094;  // what a line holds before its newline
constexpr mode_t kLogFileMode = 0666;       // agents of other users' sessions write to the same file

std::atomic<std::int32_t> g_level{kLogWarning};
thread_local bool t_in_signal_handler = false;

// The offset from UTC of the last line written outside a signal handler, in seconds.
std::atomic<long> g_utc_offset{0};

// The log file. All members are atomic and there is no lock, because a signal handler may write a line.
//
// The number of the descriptor never changes once the first file is open: dup3() puts each new file under the old
// number. If the number were closed while another thread is about to write to it, that thread's line could go into an
// unrelated file that has got the same number.
class LogFile {
 public:
  void Write(const char* line, std::size_t size) {
    const int descriptor = Descriptor();
    if (descriptor >= 0) {
      [[maybe_unused]] const ssize_t written = write(descriptor, line, size);
    }
  }

  void SetDirectory(const char* directory);

 private:
  int Descriptor();
  const char* CurrentPath() const;
  bool IsCurrent(int descriptor, const char* path) const;
  int Open(const char* path);
  bool UseHomeDirectory();

  // A path is never freed, because another thread may be using it. `previous` keeps the old paths reachable.
  struct Path {
    char text[kPathSize];
    const Path* previous;
  };

  std::atomic<const Path*> path_{nullptr};   // null: the default directory
  std::atomic<int> descriptor_{-1};          // -1 until the first file was opened
  std::atomic<bool> usable_{false};          // whether the descriptor is that of the wanted log file
  std::atomic<std::int64_t> last_check_{0};  // seconds since the epoch
  std::atomic<bool> fallback_used_{false};
};

LogFile g_file;

void LogFile::SetDirectory(const char* directory) {
  Path* path = new (std::nothrow) Path{};
  if (path == nullptr) {
    return;
  }
  std::snprintf(path->text, sizeof path->text, "%.*s/%s", kMaxDirectory, directory, kFileName);
  path->previous = path_.load();
  while (!path_.compare_exchange_weak(path->previous, path)) {
  }
  usable_.store(false);
  last_check_.store(0);
}

bool LogFile::IsCurrent(int descriptor, const char* path) const {
  struct stat on_disk {};
  struct stat opened {};
  return stat(path, &on_disk) == 0 && fstat(descriptor, &opened) == 0 && on_disk.st_dev == opened.st_dev &&
         on_disk.st_ino == opened.st_ino;
}

const char* LogFile::CurrentPath() const {
  const Path* path = path_.load();
  return path != nullptr ? path->text : kDefaultPath;
}

int LogFile::Descriptor() {
  const auto now = static_cast<std::int64_t>(time(nullptr));
  std::int64_t last = last_check_.load();
  do {
    if (last == now) {
      return usable_.load() ? descriptor_.load() : -1;
    }
  } while (!last_check_.compare_exchange_weak(last, now));

  const int current = descriptor_.load();
  if (usable_.load() && IsCurrent(current, CurrentPath())) {
    return current;
  }
  int opened = Open(CurrentPath());
  if (opened < 0 && !t_in_signal_handler && UseHomeDirectory()) {
    opened = Open(CurrentPath());
  }
  return opened;
}

int LogFile::Open(const char* path) {
  // No O_NOFOLLOW: the administrator may have replaced the file by a symbolic link. O_NONBLOCK: a FIFO of this name
  // must not block the agent.
  const int opened = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, kLogFileMode);
  if (opened < 0) {
    return -1;  // until the next check the lines go into the file that was open before, if any
  }
  fchmod(opened, kLogFileMode);  // the umask may have cleared bits
  int number = -1;
  if (descriptor_.compare_exchange_strong(number, opened)) {
    usable_.store(true);
    return opened;
  }
  dup3(opened, number, O_CLOEXEC);
  close(opened);
  usable_.store(true);
  return number;
}

// Moves the log into the user's home directory, once per process. Returns false when this was already done.
bool LogFile::UseHomeDirectory() {
  if (fallback_used_.exchange(true)) {
    return false;
  }
  const passwd* user = getpwuid(geteuid());
  char directory[kPathSize] = "";
  if (user != nullptr && user->pw_dir != nullptr) {
    const int length = std::snprintf(directory, sizeof directory, "%s/.corvessan", user->pw_dir);
    if (length >= static_cast<int>(sizeof directory) || (mkdir(directory, 0755) != 0 && errno != EEXIST)) {
      directory[0] = '\0';
    }
  }
  SetDirectory(directory);
  return true;
}

// Writes "%m-%d %H:%M:%S.mmm " and returns its length.
std::size_t FormatTime(char* out, std::size_t size) {
  timeval now{};
  gettimeofday(&now, nullptr);
  long offset = g_utc_offset.load();
  if (!t_in_signal_handler) {
    // localtime_r() takes a lock of the C library, which an interrupted thread may hold.
    std::tm local{};
    if (localtime_r(&now.tv_sec, &local) != nullptr) {
      offset = local.tm_gmtoff;
      g_utc_offset.store(offset);
    }
  }
  using namespace std::chrono;
  const sys_seconds local{seconds{now.tv_sec + offset}};
  const sys_days day = floor<days>(local);
  const year_month_day date{day};
  const hh_mm_ss clock{local - day};
  const int length = std::snprintf(out, size, "%02u-%02u %02d:%02d:%02d.%03d ", static_cast<unsigned>(date.month()),
                                   static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
                                   static_cast<int>(clock.minutes().count()), static_cast<int>(clock.seconds().count()),
                                   static_cast<int>(now.tv_usec / 1000));
  return static_cast<std::size_t>(std::max(length, 0));
}

std::size_t FormatLevel(char* out, std::size_t size, std::int32_t level) {
  static constexpr char kLetters[] = {'F', 'W', 'I', 'D', 'T'};
  const std::int32_t remainder = level % 16;
  const int length = remainder >= 0 && remainder < static_cast<std::int32_t>(sizeof kLetters)
                         ? std::snprintf(out, size, "%c ", kLetters[remainder])
                         : std::snprintf(out, size, "O(%d) ", remainder);
  return static_cast<std::size_t>(std::max(length, 0));
}

bool IsAsciiControl(char c) {
  return (c >= 0 && c < 0x20) || c == 0x7F;
}

// The length in bytes of the control character at `at`: 0 when there is none, 2 for U+0080 to U+009F.
std::size_t ControlLength(const char* at, const char* end) {
  if (IsAsciiControl(*at)) {
    return 1;
  }
  const bool c1 = *at == '\xC2' && end - at > 1 && static_cast<unsigned char>(at[1] - 0x80) < 0x20;
  return c1 ? 2 : 0;
}

// Replaces each byte of a control character by \xNN, because messages contain text from other programs: a newline would
// start a false log line, and an escape sequence would reach the terminal that shows the log. The message uses `size`
// of the `capacity` bytes at `message`. Text that does not fit is cut; the escapes of one character are never split.
// Returns the new size.
std::size_t EscapeControls(char* message, std::size_t size, std::size_t capacity) {
  constexpr std::size_t kEscapeSize = 4;
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::size_t used = 0;
  while (used < size && ControlLength(message + used, message + size) == 0) {
    ++used;
  }
  if (used == size) {
    return size;
  }
  char rest[kMaxLineText];
  const char* const end = std::copy(message + used, message + size, rest);
  const char* at = rest;
  while (at != end) {
    const std::size_t control = ControlLength(at, end);
    if ((control == 0 ? 1 : control * kEscapeSize) > capacity - used) {
      break;
    }
    if (control == 0) {
      message[used++] = *at++;
      continue;
    }
    for (std::size_t i = 0; i < control; ++i) {
      const auto byte = static_cast<unsigned char>(*at++);
      for (const char c : {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]}) {
        message[used++] = c;
      }
    }
  }
  return used;
}

[[gnu::format(printf, 4, 0)]] void WriteLine(const char* tag, const char* module, std::int32_t level,
                                             const char* format, std::va_list arguments) {
  const int saved_errno = errno;
  char line[kLineSize];
  std::size_t used = FormatTime(line, sizeof line);
  used += FormatLevel(line + used, sizeof line - used, level);
  // snprintf() returns the length that the whole text would have. This limits it to the space left in the line.
  const auto cut = [&](int length) {
    return std::min(static_cast<std::size_t>(std::max(length, 0)), kMaxLineText - used);
  };
  used += cut(std::snprintf(line + used, sizeof line - used, "%s/%s:%lld:%x/ ", tag, module,
                            static_cast<long long>(getpid()), static_cast<unsigned>(syscall(SYS_gettid))));
  char* const message = line + used;
  const int length = std::vsnprintf(message, sizeof line - used, format, arguments);
  std::size_t size = cut(length);
  // Some messages end with a newline of their own, which is kept.
  const bool closed = length > 0 && size == static_cast<std::size_t>(length) && message[size - 1] == '\n';
  if (closed) {
    size = EscapeControls(message, size - 1, kMaxLineText - used - 1);
    message[size++] = '\n';
  } else {
    size = EscapeControls(message, size, kMaxLineText - used);
  }
  used += size;
  line[used] = '\n';
  g_file.Write(line, used + 1);
  errno = saved_errno;
}

}  // namespace

void SetLogLevel(std::int32_t level) {
  g_level.store(level == -1 ? kLogWarning : level);
}

void SetLogDirectory(const char* directory) {
  g_file.SetDirectory(directory);
}

std::int32_t GetLogLevel() {
  return g_level.load(std::memory_order_relaxed);
}

void LogMessage(const char* tag, const char* module, std::int32_t level, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  WriteLine(tag, module, level, format, arguments);
  va_end(arguments);
}

void LogError(const char* module, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  WriteLine("", module, kLogError, format, arguments);
  va_end(arguments);
}

void LogWarning(const char* module, const char* format, ...) {
  if (!IsLogWanted(kLogWarning)) {
    return;
  }
  std::va_list arguments;
  va_start(arguments, format);
  WriteLine("", module, kLogWarning, format, arguments);
  va_end(arguments);
}

void LogInfo(const char* module, const char* format, ...) {
  if (!IsLogWanted(kLogInfo)) {
    return;
  }
  std::va_list arguments;
  va_start(arguments, format);
  WriteLine("", module, kLogInfo, format, arguments);
  va_end(arguments);
}

SignalHandlerScope::SignalHandlerScope() : outer_(t_in_signal_handler) {
  t_in_signal_handler = true;
}

SignalHandlerScope::~SignalHandlerScope() {
  t_in_signal_handler = outer_;
}

}  // namespace qel
