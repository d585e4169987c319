#include "host/gate_device.h"

#include <linux/fuse.h>
#include <sys/mount.h>

#define FUSE_USE_VERSION 35
#include <fcntl.h>
#include <fuse3/fuse_lowlevel.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "common/unique_fd.h"
#include "host/delayed_answers.h"
#include "host/request_reader.h"

namespace qel::host {
namespace {

constexpr fuse_ino_t kRoot = FUSE_ROOT_ID;
constexpr fuse_ino_t kFile = 2;
constexpr std::size_t kAddressSize = 4;

struct stat AttributesOf(fuse_ino_t inode) {
  struct stat attributes {};
  attributes.st_ino = inode;
  attributes.st_nlink = 1;
  // The kernel allows no writes to a file whose owner is not mapped in the user namespace.
  attributes.st_uid = geteuid();
  attributes.st_gid = getegid();
  attributes.st_mode = inode == kRoot ? S_IFDIR | 0755 : S_IFREG | 0666;
  // The kernel serialises writes beyond the end of a file. With this size the requests are before the end.
  attributes.st_size = inode == kRoot ? 0 : 4096;
  return attributes;
}

void Lookup(fuse_req_t request, fuse_ino_t parent, const char* name) {
  if (parent != kRoot || std::strcmp(name, GateDevice::kFileName) != 0) {
    fuse_reply_err(request, ENOENT);
    return;
  }
  fuse_entry_param entry{};
  entry.ino = kFile;
  entry.attr = AttributesOf(kFile);
  fuse_reply_entry(request, &entry);
}

void GetAttributes(fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
  const struct stat attributes = AttributesOf(inode);
  fuse_reply_attr(request, &attributes, 0);
}

// Truncation when the file is opened has no effect, like on a device.
void SetAttributes(fuse_req_t request, fuse_ino_t inode, struct stat*, int, fuse_file_info* file) {
  GetAttributes(request, inode, file);
}

void ReadDirectory(fuse_req_t request, fuse_ino_t, std::size_t size, off_t offset, fuse_file_info*) {
  char entry[128];
  const struct stat attributes = AttributesOf(kFile);
  const std::size_t used =
      offset > 0 ? 0 : fuse_add_direntry(request, entry, sizeof entry, GateDevice::kFileName, &attributes, 1);
  fuse_reply_buf(request, entry, used > std::min(size, sizeof entry) ? 0 : used);
}

}  // namespace

// One mount of the file system, and the threads that serve it.
class GateDevice::Session {
 public:
  explicit Session(GateHandler& handler) : handler_(handler) {}
  ~Session();

  bool Start(std::string& error);

 private:
  static Session& Of(fuse_req_t request) { return *static_cast<Session*>(fuse_req_userdata(request)); }
  static void Open(fuse_req_t request, fuse_ino_t inode, fuse_file_info* file);
  static void Release(fuse_req_t request, fuse_ino_t inode, fuse_file_info* file);
  static void Write(fuse_req_t request, fuse_ino_t inode, const char* data, std::size_t size, off_t offset,
                    fuse_file_info* file);

  void Take(fuse_req_t request, const char* data, std::size_t size);
  void Finish(fuse_req_t request, const GateRequest& gate_request, const GateAnswer& answer);
  bool Mount(int device, std::string& error);
  void Serve();

  GateHandler& handler_;
  fuse_session* fuse_ = nullptr;
  bool mounted_ = false;
  UniqueFd stop_;
  std::unique_ptr<DelayedAnswers> delayed_;
  std::thread thread_;
};

GateDevice::Session::~Session() {
  if (thread_.joinable()) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(stop_.Get(), &one, sizeof one);
    thread_.join();
  }
  // No answers are added any more. This gives the delayed ones while the kernel still accepts them.
  delayed_.reset();
  if (mounted_) umount2(kMountPoint, MNT_DETACH);
  // Also closes the connection to the kernel, so that later requests fail.
  if (fuse_ != nullptr) fuse_session_destroy(fuse_);
}

bool GateDevice::Session::Mount(int device, std::string& error) {
  const std::string options =
      Format("fd=%d,rootmode=40000,user_id=%u,group_id=%u,allow_other", device, geteuid(), getegid());
  if (mount("qel_gate", kMountPoint, "fuse.qel_gate", MS_NOSUID | MS_NODEV | MS_NOATIME, options.c_str()) != 0) {
    error = Format("cannot mount over %s: %s", kMountPoint, std::strerror(errno));
    return false;
  }
  mounted_ = true;
  return true;
}

bool GateDevice::Session::Start(std::string& error) {
  UniqueFd device(open("/dev/fuse", O_RDWR | O_CLOEXEC | O_NONBLOCK));
  if (!device) {
    error = Format("cannot open /dev/fuse: %s", std::strerror(errno));
    return false;
  }
  stop_ = UniqueFd(eventfd(0, EFD_CLOEXEC));
  if (!stop_) {
    error = Format("cannot make an event descriptor: %s", std::strerror(errno));
    return false;
  }
  fuse_lowlevel_ops operations{};
  operations.lookup = Lookup;
  operations.getattr = GetAttributes;
  operations.setattr = SetAttributes;
  operations.readdir = ReadDirectory;
  operations.open = Open;
  operations.release = Release;
  operations.write = Write;
  char name[] = "qel_gate";
  char* arguments[] = {name, nullptr};
  fuse_args fuse_arguments = FUSE_ARGS_INIT(1, arguments);
  fuse_ = fuse_session_new(&fuse_arguments, &operations, sizeof operations, this);
  fuse_opt_free_args(&fuse_arguments);  // libfuse has changed them to a copy of its own
  if (fuse_ == nullptr) {
    error = "cannot make a FUSE session";
    return false;
  }
  if (!Mount(device.Get(), error)) return false;
  // libfuse takes over an existing mount by its descriptor, and then owns the descriptor.
  if (fuse_session_mount(fuse_, Format("/dev/fd/%d", device.Get()).c_str()) != 0) {
    error = "cannot take the mount over into the FUSE session";
    return false;
  }
  [[maybe_unused]] const int owned_by_fuse = device.Release();
  delayed_ = std::make_unique<DelayedAnswers>();
  thread_ = std::thread([this] { Serve(); });
  return true;
}

void GateDevice::Session::Serve() {
  fuse_buf buffer{};
  pollfd waits[] = {{fuse_session_fd(fuse_), POLLIN, 0}, {stop_.Get(), POLLIN, 0}};
  while (fuse_session_exited(fuse_) == 0) {
    if (poll(waits, 2, -1) < 0 && errno != EINTR) break;
    if (waits[1].revents != 0) break;
    if (waits[0].revents == 0) continue;
    const int size = fuse_session_receive_buf(fuse_, &buffer);
    if (size == -EINTR || size == -EAGAIN) continue;
    if (size <= 0) break;
    fuse_session_process_buf(fuse_, &buffer);
  }
  std::free(buffer.mem);
}

void GateDevice::Session::Open(fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
  const int error = inode == kFile ? Of(request).handler_.OnOpen(fuse_req_ctx(request)->pid) : EISDIR;
  if (error != 0) {
    fuse_reply_err(request, error);
    return;
  }
  // This libfuse has no names for some of these flags. Without them the kernel allows only one write at a time.
  fuse_open_out out{};
  out.open_flags = FOPEN_DIRECT_IO | FOPEN_NONSEEKABLE | FOPEN_STREAM | FOPEN_NOFLUSH | FOPEN_PARALLEL_DIRECT_WRITES;
  fuse_reply_buf(request, reinterpret_cast<const char*>(&out), sizeof out);
}

void GateDevice::Session::Release(fuse_req_t request, fuse_ino_t, fuse_file_info*) {
  Of(request).handler_.OnClose();
  fuse_reply_err(request, 0);
}

void GateDevice::Session::Write(fuse_req_t request, fuse_ino_t, const char* data, std::size_t size, off_t,
                                fuse_file_info*) {
  Of(request).Take(request, data, size);
}

void GateDevice::Session::Take(fuse_req_t request, const char* data, std::size_t size) {
  const pid_t thread = fuse_req_ctx(request)->pid;
  if (size != kAddressSize) {
    handler_.OnProblem(thread, Format("a write of %zu bytes, where an address has %zu", size, kAddressSize));
    fuse_reply_err(request, EINVAL);
    return;
  }
  const std::uint32_t address = LoadU32(ViewOf({data, size}), 0);
  RequestProblem problem;
  std::optional<GateRequest> gate_request = ReadRequest(thread, address, problem);
  if (!gate_request) {
    handler_.OnProblem(thread, Format("request at 0x%x: ", address) + problem.text);
    fuse_reply_err(request, problem.error);
    return;
  }
  GateAnswer answer = handler_.OnRequest(*gate_request);
  if (answer.delay.count() <= 0) {
    Finish(request, *gate_request, answer);
    return;
  }
  const auto time = DelayedAnswers::Clock::now() + answer.delay;
  // shared_ptr, because std::function must be copyable and requests are large.
  const auto waiting =
      std::make_shared<const std::pair<GateRequest, GateAnswer>>(std::move(*gate_request), std::move(answer));
  delayed_->Add(time, [this, request, waiting] { Finish(request, waiting->first, waiting->second); });
}

void GateDevice::Session::Finish(fuse_req_t request, const GateRequest& gate_request, const GateAnswer& answer) {
  if (answer.write_error != 0) {
    fuse_reply_err(request, answer.write_error);
    return;
  }
  RequestProblem problem;
  if (WriteAnswer(gate_request, answer, problem)) {
    fuse_reply_write(request, kAddressSize);
    return;
  }
  handler_.OnProblem(gate_request.thread, problem.text);
  fuse_reply_err(request, problem.error);
}

GateDevice::GateDevice() = default;
GateDevice::~GateDevice() {
  Stop();
}

bool GateDevice::Start(GateHandler& handler, std::string& error) {
  Stop();
  auto session = std::make_unique<Session>(handler);
  if (!session->Start(error)) return false;
  session_ = std::move(session);
  return true;
}

void GateDevice::Stop() {
  session_.reset();
}

}  // namespace qel::host
