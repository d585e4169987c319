#include "host/page_view.h"

#include <nlohmann/json.hpp>

#include "host/render_json.h"

namespace qel::host {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kMostEvents = 300;      // in one step; a page shows no more
constexpr std::size_t kMostLookedAt = 5'000;  // fetches without a result are left out

std::string Dump(const Json& json) {
  // Texts come from the guest and may not be UTF-8.
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// The part of the state that a page shows; copies share the icons' bytes.
struct Snapshot {
  ModelState state;          // without events, and without the menu if the page has it
  std::vector<Event> fresh;  // oldest first
  std::uint64_t left_out = 0;
};

Snapshot Take(const Host& host, std::uint64_t seen, std::optional<std::uint64_t> menus) {
  Snapshot snapshot;
  host.model().Read([&](const ModelState& state) {
    ModelState& copy = snapshot.state;
    copy.tool_active = state.tool_active;
    copy.services = state.services;
    copy.applications = state.applications;
    copy.hidden_windows = state.hidden_windows;
    copy.enumeration_finished = state.enumeration_finished;
    copy.counts = state.counts;
    copy.messages = state.messages;
    copy.violations = state.violations;
    copy.remarks = state.remarks;
    if (menus != state.Count(MessageKind::kAppMenu)) copy.menu = state.menu;
    std::size_t looked_at = 0;
    for (auto event = state.events.rbegin(); event != state.events.rend() && event->sequence > seen; ++event) {
      if (snapshot.fresh.size() == kMostEvents || ++looked_at > kMostLookedAt) {
        snapshot.left_out = event->sequence - seen;
        break;
      }
      if (!IsIdleFetch(*event)) snapshot.fresh.push_back(*event);
    }
  });
  std::ranges::reverse(snapshot.fresh);
  return snapshot;
}

std::string StatusJson(const Host& host, const ModelState& state) {
  Json agents = Json::array();
  for (const auto& [pid, service] : state.services) {
    Json agent = {{"pid", pid}, {"name", service.name}};
    if (service.version) {
      agent["version"] = Format("%u.%u.%u", service.version->major, service.version->minor, service.version->build);
    }
    agents.push_back(agent);
  }
  return Dump({{"tool_active", state.tool_active ? Json(*state.tool_active) : Json(nullptr)},
               {"agents", agents},
               {"connected", host.Opens() > host.Closes()},
               {"enumeration_finished", state.enumeration_finished},
               {"commands_waiting", host.CommandsWaiting()},
               {"messages", state.messages},
               {"violations", state.violations},
               {"remarks", state.remarks}});
}

std::string ApplicationsJson(const ModelState& state, IconShelf& icons) {
  Json list = Json::array();
  for (const auto& [pid, application] : state.applications) {
    if (application.windows.empty()) continue;
    // Changes inside a window manager's frames, of which the frame is not known.
    Json inside = Json::array();
    for (const auto& [id, title] : application.inner_titles) {
      const auto icon = application.inner_icons.find(id);
      const std::uint64_t number = icon == application.inner_icons.end() ? 0 : icons.NumberOf(icon->second);
      inside.push_back({{"id", id}, {"title", title}, {"icon", number}});
    }
    Json windows = Json::array();
    for (const auto& [id, window] : application.windows) {
      windows.push_back({{"id", id},
                         {"title", window.title},
                         {"icon", icons.NumberOf(window.icon)},
                         {"hidden", state.hidden_windows.contains(id)}});
    }
    const Window& first = application.windows.begin()->second;
    list.push_back({{"pid", pid},
                    {"name", first.name},
                    {"path", first.path},
                    {"windows", std::move(windows)},
                    {"inside", std::move(inside)}});
  }
  return Dump(list);
}

std::string MenuJson(const AppMenu& menu, IconShelf& icons) {
  Json list = Json::array();
  for (const MenuEntry& entry : menu.entries) {
    list.push_back({{"path", entry.path},
                    {"name", entry.name},
                    {"location", entry.location.value_or("")},
                    {"icon", entry.icon ? icons.NumberOf(*entry.icon) : 0}});
  }
  return Dump(list);
}

std::string ServerSentEvent(const char* name, const std::string& json) {
  return Format("event: %s\ndata: ", name) + json + "\n\n";
}

}  // namespace

std::uint64_t IconShelf::NumberOf(const Icon& icon) {
  if (icon.IsEmpty()) return 0;
  const std::lock_guard lock(mutex_);
  const auto known = numbers_.find(icon.bytes.get());
  // Bytes at the same address may be those of another icon, if the first is gone.
  if (known != numbers_.end() && places_.at(known->second).bytes.lock() == icon.bytes) return known->second;
  if (places_.size() >= drop_at_) DropGone();
  numbers_[icon.bytes.get()] = ++last_;
  Place place{icon.bytes, icon};
  place.icon.bytes.reset();
  places_[last_] = std::move(place);
  return last_;
}

Icon IconShelf::Find(std::uint64_t number) const {
  const std::lock_guard lock(mutex_);
  const auto place = places_.find(number);
  if (place == places_.end()) return {};
  Icon icon = place->second.icon;
  icon.bytes = place->second.bytes.lock();
  return icon;
}

void IconShelf::DropGone() {
  std::erase_if(places_, [](const auto& place) { return place.second.bytes.expired(); });
  std::erase_if(numbers_, [&](const auto& number) { return !places_.contains(number.second); });
  drop_at_ = std::max<std::size_t>(1024, places_.size() * 2);
}

std::string PageFeed::Changed(const char* name, std::string& told, std::string now) const {
  if (now == told) return {};
  told = std::move(now);
  return ServerSentEvent(name, told);
}

std::string PageFeed::Next() {
  const Snapshot snapshot = Take(host_, seen_, menus_);
  const ModelState& state = snapshot.state;
  seen_ = state.messages;
  std::string text = Changed("status", status_, StatusJson(host_, state));
  text += Changed("applications", applications_, ApplicationsJson(state, icons_));
  if (const std::uint64_t menus = state.Count(MessageKind::kAppMenu); menus != menus_) {
    menus_ = menus;
    text += ServerSentEvent("menu", MenuJson(state.menu.value_or(AppMenu{}), icons_));
  }
  if (snapshot.left_out > 0) text += ServerSentEvent("left-out", Dump(snapshot.left_out));
  for (const Event& event : snapshot.fresh) text += ServerSentEvent("message", EventToJson(event));
  return text;
}

void PageFeed::Wait(std::chrono::milliseconds timeout) const {
  static_cast<void>(host_.WaitFor([&](const ModelState& state) { return state.messages > seen_; }, timeout));
}

}  // namespace qel::host
