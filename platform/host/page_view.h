// What the page is told about the guest, as JSON.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "host/host.h"

namespace qel::host {

// Gives each icon of the model a number, by which the page asks for it. A number never means another icon. Icons that
// the model has dropped are not kept. Any thread may use it.
class IconShelf {
 public:
  // The icon's number; 0 if it is empty.
  std::uint64_t NumberOf(const Icon& icon);
  // The icon with this number; empty if there is none any more.
  Icon Find(std::uint64_t number) const;

 private:
  struct Place {
    std::weak_ptr<const Bytes> bytes;
    Icon icon;  // without its bytes
  };
  void DropGone();

  mutable std::mutex mutex_;
  std::map<std::uint64_t, Place> places_;
  std::map<const Bytes*, std::uint64_t> numbers_;
  std::uint64_t last_ = 0;
  std::size_t drop_at_ = 1024;
};

// What one open page has been told. It has no queue: what a page missed while it was slow is left out or summed up, so
// a page that stops reading costs nothing. One thread at a time.
class PageFeed {
 public:
  PageFeed(Host& host, IconShelf& icons) : host_(host), icons_(icons) {}

  // All that has changed since the last call, as server-sent events; the first time everything. Empty if nothing has.
  std::string Next();
  // Waits until there are more messages than Next() has seen, but no longer than this.
  void Wait(std::chrono::milliseconds timeout) const;

 private:
  std::string Changed(const char* name, std::string& told, std::string now) const;

  Host& host_;
  IconShelf& icons_;
  std::uint64_t seen_ = 0;  // number of the last message
  std::optional<std::uint64_t> menus_;
  std::string status_;
  std::string applications_;
};

}  // namespace qel::host
