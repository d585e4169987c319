#include "apps/window_actions.h"

#include <X11/Xutil.h>

#include "apps/window_properties.h"
#include "apps/window_tree.h"
#include "tools_service/x_library.h"
#include "tools_service/x_requests.h"

namespace qel {
namespace {

// The client window for a request that names `window`.
Window ClientOf(const Session& session, Window window) {
  if (HasWmState(session, window)) {
    return window;
  }
  const Window client = FindClientWindow(session, window);
  return client != None ? client : window;
}

void SendClientMessage(const Session& session, Window receiver, long mask, Window window, Atom type, long first_value) {
  XEvent event{};
  event.xclient.type = ClientMessage;
  event.xclient.send_event = True;
  event.xclient.display = session.display;
  event.xclient.window = window;
  event.xclient.message_type = type;
  event.xclient.format = 32;
  event.xclient.data.l[0] = first_value;
  x_api.XSendEvent(session.display, receiver, False, mask, &event);
}

// Sends the request to the top-level window, because most window managers select requests on their frames. If no client
// selects them there (some window managers do not, and some have no frames), also sends it to the root window.
void AskWindowManager(const Session& session, Window toplevel, Window client, Atom type, long first_value) {
  constexpr long kMask = SubstructureRedirectMask | SubstructureNotifyMask;
  SendClientMessage(session, toplevel, kMask, client, type, first_value);
  XWindowAttributes attributes{};
  if (x_api.XGetWindowAttributes(session.display, toplevel, &attributes) != 0 &&
      (attributes.all_event_masks & SubstructureRedirectMask) == 0) {
    SendClientMessage(session, session.root, kMask, client, type, first_value);
  }
}

}  // namespace

void ActivateWindow(const Session& session, Window window) {
  const Window client = ClientOf(session, window);
  x_requests::SetInputFocus(session.display, client);
  x_requests::RaiseWindow(session.display, client);
  x_api.XFlush(session.display);
  x_requests::RoundTrip(session.display);
  AskWindowManager(session, window, client, session.atoms.net_active_window, 0);
}

void MinimizeWindow(const Session& session, Window window) {
  const Window client = ClientOf(session, window);
  AskWindowManager(session, window, client, session.atoms.wm_change_state, IconicState);
  x_api.XFlush(session.display);
  x_requests::RoundTrip(session.display);
}

void CloseWindows(const Session& session, const WindowPairSet& windows) {
  const auto delete_window = static_cast<long>(session.atoms.wm_delete_window);
  for (const WindowPair& pair : windows) {
    SendClientMessage(session, pair.client, NoEventMask, pair.client, session.atoms.wm_protocols, delete_window);
  }
}

}  // namespace qel
