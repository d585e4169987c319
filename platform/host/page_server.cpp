#include "host/page_server.h"

#include <fcntl.h>
#include <httplib.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include "host/icon_image.h"
#include "host/page_commands.h"
#include "host/page_connections.h"
#include "host/page_files.h"
#include "host/page_view.h"

namespace qel::host {
namespace {

constexpr int kMostStreams = 8;       // open pages
constexpr int kMostConnections = 32;  // each has a thread
constexpr std::size_t kMostRequestBytes = 64 << 10;
constexpr std::uint64_t kMostConnectionBytes = 1 << 20;  // with all requests of a connection
constexpr std::size_t kMostCommandsWaiting = 100;
constexpr std::chrono::milliseconds kLookAgain{500};  // for changes without a message, and for a stop
constexpr std::chrono::milliseconds kCollect{40};     // changes in this time are sent together
constexpr std::chrono::seconds kProofOfLife{10};
constexpr std::chrono::milliseconds kGuard{50};  // how often connections are looked at

// The program's own files only; whatever a guest sends is text and images.
constexpr const char* kPagePolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'; require-trusted-types-for 'script'";
// For icons that somebody opens as documents: they can do nothing.
constexpr const char* kIconPolicy = "default-src 'none'; style-src 'unsafe-inline'; frame-ancestors 'none'; sandbox";

using httplib::Request;
using httplib::Response;

void Refuse(Response& response, int status, const std::string& reason) {
  response.status = status;
  response.set_content(reason + "\n", "text/plain; charset=utf-8");
}

// A limit on what happens at the same time.
class Limit {
 public:
  explicit Limit(int most) : left_(most) {}

  bool Take() {
    const std::lock_guard lock(mutex_);
    if (left_ == 0) return false;
    --left_;
    return true;
  }
  // Waits until there is one; in vain after GiveUp().
  void WaitAndTake() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return left_ > 0 || gave_up_; });
    --left_;
  }
  void Give() {
    const std::lock_guard lock(mutex_);
    ++left_;
    changed_.notify_one();
  }
  void GiveUp() {
    const std::lock_guard lock(mutex_);
    gave_up_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int left_;
  bool gave_up_ = false;
};

// While all threads have a connection, the server accepts no other. The library's own queue has no limit.
class Connections : public httplib::TaskQueue {
 public:
  // Nothing in older versions of the library; in newer ones, whether the queue has taken the task.
  using Taken = decltype(std::declval<httplib::TaskQueue&>().enqueue({}));

  explicit Connections(Limit& limit) : limit_(limit) {}

  Taken enqueue(std::function<void()> serve) override {
    limit_.WaitAndTake();
    return threads_.enqueue([this, serve = std::move(serve)] {
      serve();
      limit_.Give();
    });
  }
  void shutdown() override { threads_.shutdown(); }

 private:
  Limit& limit_;
  httplib::ThreadPool threads_{kMostConnections};
};

}  // namespace

class PageServer::Implementation {
 public:
  explicit Implementation(Host& host) : host_(host) {
    // Without SO_REUSEPORT, which the library would set: nobody else shall share the port.
    server_.set_socket_options([](int socket) {
      const int on = 1;
      setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
      fcntl(socket, F_SETFD, FD_CLOEXEC);
    });
    server_.new_task_queue = [this] { return new Connections(connections_); };
    server_.set_payload_max_length(kMostRequestBytes);
    server_.set_keep_alive_timeout(2);
    server_.set_read_timeout(5);
    server_.set_write_timeout(5);
    server_.set_tcp_nodelay(true);
    server_.set_default_headers({{"Content-Security-Policy", kPagePolicy},
                                 {"Cache-Control", "no-store"},
                                 {"Cross-Origin-Opener-Policy", "same-origin"},
                                 {"Cross-Origin-Resource-Policy", "same-origin"},
                                 {"Referrer-Policy", "no-referrer"},
                                 {"X-Content-Type-Options", "nosniff"},
                                 {"X-Frame-Options", "DENY"}});
    server_.set_pre_routing_handler([this](const Request& request, Response& response) {
      return MayPass(request, response) ? httplib::Server::HandlerResponse::Unhandled
                                        : httplib::Server::HandlerResponse::Handled;
    });
    server_.Get("/", [this](const Request&, Response& response) { Welcome(response); });
    for (const PageFile& file : PageFiles()) {
      const std::string name(file.name == "index.html" ? "" : file.name);
      server_.Get(base_ + name, [&file](const Request&, Response& response) {
        response.set_content(file.content.data(), file.content.size(), std::string(file.type));
      });
    }
    server_.Get(base_ + "events", [this](const Request&, Response& response) { StreamEvents(response); });
    server_.Get(base_ + "icon/([0-9]{1,18})",
                [this](const Request& request, Response& response) { ServeIcon(request.matches[1], response); });
    server_.Post(base_ + "command", [this](const Request& request, Response& response) { Execute(request, response); });
  }

  ~Implementation() { Stop(); }

  bool Bind(const PageAddress& address, std::string& error) {
    // For all interfaces, the address that a browser of this machine can open.
    const bool any = address.address == "0.0.0.0" || address.address == "::";
    host_name_ = UrlHost(!any ? address.address : address.address == "::" ? "::1" : "127.0.0.1");
    port_ = address.port;
    errno = 0;
    if (port_ == 0) {
      port_ = server_.bind_to_any_port(address.address);
    } else if (!server_.bind_to_port(address.address, port_)) {
      port_ = -1;
    }
    if (port_ > 0) return true;
    error = Format("cannot serve a page at %s, port %d: %s", address.address.c_str(), address.port,
                   errno != 0 ? std::strerror(errno) : "no such address");
    return false;
  }

  std::string Url() const { return Format("http://%s:%d/?token=%s", host_name_.c_str(), port_, token_.c_str()); }

  void Serve() {
    thread_ = std::thread([this] {
      server_.listen_after_bind();
      ended_ = true;
    });
    // The library keeps lines and headers of any length, and asks nobody before it has them all.
    guard_ = std::thread([this] {
      for (; !stopping_; std::this_thread::sleep_for(kGuard)) ShutDownConnections(port_, kMostConnectionBytes);
    });
  }

  void Stop() {
    if (!thread_.joinable()) return;
    stopping_ = true;
    connections_.GiveUp();
    // The thread may only just begin to listen, and a stop before that has no effect.
    while (!server_.is_running() && !ended_) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    server_.stop();
    // No thread shall wait for a client any more.
    ShutDownConnections(port_, 0);
    thread_.join();
    guard_.join();
  }

 private:
  // Decides for every request whether it is served.
  bool MayPass(const Request& request, Response& response) const {
    const RequestOrigin from{request.get_header_value("Host"), request.get_header_value("Origin"),
                             request.get_header_value("Sec-Fetch-Site")};
    if (!HasNumericHost(from)) {
      Refuse(response, 403, "This page is served at the machine's IP address only.");
      return false;
    }
    // A link to the printed address may stand anywhere, so only the token counts there.
    if (request.path == "/" && request.method == "GET" && IsSecret(request.get_param_value("token"), token_))
      return true;
    const bool own_page = IsSameOrigin(from) && (request.method == "GET" || !from.origin.empty());
    if (own_page && request.path.starts_with(base_) && HasCookie(request)) return true;
    Refuse(response, 403, "Open the address that tdlhost has printed. A new start of tdlhost has a new address.");
    return false;
  }

  bool HasCookie(const Request& request) const {
    std::istringstream cookies(request.get_header_value("Cookie"));
    for (std::string cookie; std::getline(cookies >> std::ws, cookie, ';');) {
      if (IsSecret(cookie, "tdlhost=" + cookie_)) return true;
    }
    return false;
  }

  // The token's only use: from here on the browser has the cookie, and the token is in no address any more. The cookie
  // is for a path that nobody else knows, because browsers send cookies to all ports of a machine. There is no
  // redirect in the HTTP sense: if a program has opened the address through a file, the browser would send no cookie.
  void Welcome(Response& response) const {
    response.set_header("Set-Cookie", "tdlhost=" + cookie_ + "; Path=" + base_ + "; HttpOnly; SameSite=Strict");
    response.set_header("Refresh", "0; url=" + base_);
    response.set_content("<!DOCTYPE html><html lang=\"en\"><title>tdlhost</title><link rel=\"icon\" href=\"" + base_ +
                             "window.svg\"><a href=\"" + base_ + "\">The page</a>",
                         "text/html; charset=utf-8");
  }

  void StreamEvents(Response& response) {
    if (!streams_.Take()) {
      Refuse(response, 503, "Too many pages are open.");
      return;
    }
    struct Stream {
      Stream(Limit& limit, Host& host, IconShelf& icons) : limit_(limit), feed(host, icons) {}
      ~Stream() { limit_.Give(); }
      Stream(const Stream&) = delete;
      Stream& operator=(const Stream&) = delete;
      Limit& limit_;
      PageFeed feed;
      std::chrono::steady_clock::time_point last{};
    };
    const auto stream = std::make_shared<Stream>(streams_, host_, icons_);
    response.set_chunked_content_provider("text/event-stream", [this, stream](std::size_t, httplib::DataSink& sink) {
      stream->feed.Wait(kLookAgain);
      if (stopping_) return false;
      std::string text = stream->feed.Next();
      const auto now = std::chrono::steady_clock::now();
      // Without this line a browser that has gone would be noticed only with the next change.
      if (text.empty() && now - stream->last > kProofOfLife) text = ":\n\n";
      if (text.empty()) return true;
      stream->last = now;
      if (!sink.write(text.data(), text.size())) return false;
      std::this_thread::sleep_for(kCollect);
      return true;
    });
  }

  void ServeIcon(const std::string& digits, Response& response) const {
    std::uint64_t number = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), number);
    const auto image = ToImage(icons_.Find(number));
    if (!image) {
      Refuse(response, 404, "There is no such icon, or it cannot be shown.");
      return;
    }
    response.headers.erase("Content-Security-Policy");
    response.set_header("Content-Security-Policy", kIconPolicy);
    response.set_content(image->bytes, image->type);
  }

  void Execute(const Request& request, Response& response) {
    // Other types could be sent by any page without a question to the server.
    if (request.get_header_value("Content-Type") != "application/json") {
      Refuse(response, 415, "A request is JSON.");
      return;
    }
    std::string problem;
    auto command = CommandForPage(request.body, host_.model(), problem);
    if (!command) {
      Refuse(response, 400, problem);
    } else if (host_.CommandsWaiting() >= kMostCommandsWaiting) {
      Refuse(response, 503, "The agent has not fetched the commands before.");
    } else {
      response.set_content(Describe(*command) + "\n", "text/plain; charset=utf-8");
      host_.Send(std::move(*command));
    }
  }

  Host& host_;
  const std::string token_ = RandomHex(24);
  const std::string cookie_ = RandomHex(24);
  const std::string base_ = "/" + RandomHex(8) + "/";
  std::string host_name_;
  int port_ = -1;
  IconShelf icons_;
  Limit streams_{kMostStreams};
  Limit connections_{kMostConnections};
  std::atomic<bool> stopping_{false};
  std::atomic<bool> ended_{false};
  httplib::Server server_;
  std::thread thread_;
  std::thread guard_;
};

PageServer::PageServer(Host& host) : implementation_(std::make_unique<Implementation>(host)) {}
PageServer::~PageServer() = default;
bool PageServer::Bind(const PageAddress& address, std::string& error) {
  return implementation_->Bind(address, error);
}
std::string PageServer::Url() const {
  return implementation_->Url();
}
void PageServer::Serve() {
  implementation_->Serve();
}
void PageServer::Stop() {
  implementation_->Stop();
}

}  // namespace qel::host
