#include "tools_service/x_requests.h"

#include <X11/Xlibint.h>

// Xlibint.h defines macros with these names.
#undef min
#undef max

#include <utility>

#include "tools_service/x_library.h"

namespace qel::x_requests {
namespace {

// Minor opcodes of "CorvessanControl".
constexpr CARD8 kMinorIsConsoleActive = 28;
constexpr CARD8 kMinorClaimUserSession = 29;

struct ControlRequest {
  CARD8 major_opcode;
  CARD8 minor_opcode;
  CARD16 length;  // in units of 4 bytes
};
struct ClaimRequest {
  ControlRequest header;
  CARD32 user_id;
};
static_assert(sizeof(ControlRequest) == 4 && sizeof(ClaimRequest) == 8);

// The lock is not released by a destructor: an I/O error ends the thread inside of an Xlib call, after the display was
// closed, and a destructor would then access the closed display.
void Lock(Display* display) {
  LockDisplay(display);
}

void UnlockAndSync(Display* display) {
  UnlockDisplay(display);
  Display* const dpy = display;  // SyncHandle() uses this name
  SyncHandle();
}

// Appends a request with its opcode and length to the output buffer. The display must be locked.
template <typename Request>
Request* NewRequest(Display* display, CARD8 opcode) {
  using GetRequest = decltype(&::_XGetRequest);
  return static_cast<Request*>(reinterpret_cast<GetRequest>(x_api._XGetRequest)(display, opcode, sizeof(Request)));
}

// Waits for the reply to the last request, which must have 32 bytes. Returns false on an error.
bool ReadReply(Display* display, xReply& reply) {
  using Reply = decltype(&::_XReply);
  return reinterpret_cast<Reply>(x_api._XReply)(display, &reply, 0, xFalse) != 0;
}

// The receiver of events, and Xlib's functions that convert an event from the wire format to an XEvent, by event type.
using Converter = Bool (*)(Display*, XEvent*, xEvent*);
EventReceiver g_receiver = nullptr;
Converter g_converters[LASTEvent];

// Replaces every converter. Xlib queues an event only when the converter returns true.
Bool ConvertAndHandOver(Display* display, XEvent* event, xEvent* wire) {
  constexpr unsigned kTypeMask = 0x7F;  // bit 0x80 marks events that another client has sent
  if (g_converters[wire->u.u.type & kTypeMask](display, event, wire) != False) {
    g_receiver(*event);
  }
  return False;
}

// Reads the reply to a request of the control extension: whether the number in bytes 8 to 11 is not 0.
bool ReadAnswer(Display* display) {
  xReply reply{};
  return ReadReply(display, reply) && reply.generic.data00 != 0;
}

}  // namespace

void ReceiveEventsAsRead(Display* display, EventReceiver receiver) {
  g_receiver = receiver;
  Lock(display);
  for (int type = KeyPress; type < GenericEvent; ++type) {
    // The same as XESetWireToEvent(), which is not in the function table.
    g_converters[type] = std::exchange(display->event_vec[type], ConvertAndHandOver);
  }
  UnlockDisplay(display);
}

void SetInputFocus(Display* display, Window window) {
  Lock(display);
  auto* request = NewRequest<xSetInputFocusReq>(display, X_SetInputFocus);
  request->revertTo = RevertToPointerRoot;
  request->focus = static_cast<CARD32>(window);
  request->time = CurrentTime;
  UnlockAndSync(display);
}

void RaiseWindow(Display* display, Window window) {
  struct RaiseRequest {
    xConfigureWindowReq header;
    CARD32 stack_mode;  // the only value in the mask
  };
  static_assert(sizeof(RaiseRequest) == sz_xConfigureWindowReq + 4);
  Lock(display);
  auto* request = NewRequest<RaiseRequest>(display, X_ConfigureWindow);
  request->header.window = static_cast<CARD32>(window);
  request->header.mask = CWStackMode;
  request->stack_mode = Above;
  UnlockAndSync(display);
}

void RoundTrip(Display* display) {
  Lock(display);
  NewRequest<xReq>(display, X_GetInputFocus);
  xReply reply{};
  ReadReply(display, reply);
  UnlockAndSync(display);
}

bool IsConsoleActive(Display* display, int major_opcode) {
  Lock(display);
  auto* request = NewRequest<ControlRequest>(display, static_cast<CARD8>(major_opcode));
  request->minor_opcode = kMinorIsConsoleActive;
  const bool active = ReadAnswer(display);
  UnlockAndSync(display);
  return active;
}

bool ClaimUserSession(Display* display, int major_opcode, std::uint32_t user_id) {
  Lock(display);
  auto* request = NewRequest<ClaimRequest>(display, static_cast<CARD8>(major_opcode));
  request->header.minor_opcode = kMinorClaimUserSession;
  request->user_id = user_id;
  const bool granted = ReadAnswer(display);
  UnlockAndSync(display);
  return granted;
}

}  // namespace qel::x_requests
