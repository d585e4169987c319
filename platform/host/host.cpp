#include "host/host.h"

#include "host/decoder.h"

namespace qel::host {
namespace {

// Offsets of the fields that the host writes in the sub-header of a service message.
constexpr std::size_t kReplyLength = 12;
constexpr std::size_t kReplyNeeded = 16;
constexpr std::size_t kResult = 20;
constexpr std::size_t kSubHeaderSize = 32;

// The sub-header with the fields of the host: no reply, and this result.
Bytes AnsweredSubHeader(ByteView sub_header, std::int32_t result) {
  const ByteView head = Slice(sub_header, 0, kSubHeaderSize);
  Bytes bytes(head.begin(), head.end());
  StoreU32(bytes, kReplyLength, 0);
  StoreU32(bytes, kReplyNeeded, 0);
  StoreU32(bytes, kResult, static_cast<std::uint32_t>(result));
  return bytes;
}

bool SameButStatus(const GateRequest& a, const GateRequest& b) {
  return a.code == b.code && a.reserved == b.reserved && a.inline_data == b.inline_data && a.buffers == b.buffers;
}

Outcome OutcomeOf(const std::optional<Fault>& fault) {
  if (!fault) return Outcome::kTaken;
  switch (fault->action) {
    case FaultAction::kResubmit:
      return Outcome::kResubmit;
    case FaultAction::kFail:
      return Outcome::kFailed;
    case FaultAction::kReject:
      return Outcome::kRejected;
    case FaultAction::kWriteError:
      return Outcome::kWriteFailed;
    case FaultAction::kGarbage:
      return Outcome::kTaken;
  }
  return Outcome::kTaken;
}

// The result of a service message is in its sub-header, inline or in the first buffer.
void AnswerService(const GateRequest& request, std::int32_t result, GateAnswer& answer) {
  if (!request.inline_data.empty()) answer.inline_data = AnsweredSubHeader(request.inline_data, result);
  if (!request.buffers.empty() && request.buffers[0].Writable() && request.buffers[0].size >= kSubHeaderSize) {
    answer.buffers = {AnsweredSubHeader(request.buffers[0].data, result)};
  }
}

}  // namespace

bool Host::Start(std::string& error) {
  resubmissions_.clear();
  probe_results_.clear();
  return device_.Start(*this, error);
}

Event Host::DecodeAndCheck(const GateRequest& request) {
  Event event;
  event.agent = request.process;
  event.thread = request.thread;
  std::optional<GateRequest> adjusted;
  const auto before = resubmissions_.find(request.thread);
  if (before != resubmissions_.end()) {
    if (!SameButStatus(before->second, request)) {
      // An agent that has been asked to stop may do this.
      event.remarks.push_back("the request that was to be submitted again did not come unchanged");
    } else if (request.status == kStatusResubmit) {
      // The status is from the host's last answer.
      adjusted = request;
      adjusted->status = 0;
    }
    resubmissions_.erase(before);
  }
  Decoded decoded = Decode(adjusted ? *adjusted : request);
  event.notification = std::move(decoded.notification);
  event.violations = std::move(decoded.violations);
  CheckProbe(event);
  return event;
}

void Host::CheckProbe(Event& event) {
  const auto probed = probe_results_.find(event.agent);
  const auto check_layout = [&](ServiceLayout layout) {
    if (probed == probe_results_.end()) {
      event.violations.push_back("a service message without a probe before it");
    } else if ((probed->second < 0) == (layout == ServiceLayout::kBuffers)) {
      event.violations.push_back(
          Format("the layout '%s' does not fit the probe's result %d", LayoutName(layout), probed->second));
    }
  };
  if (const auto* service = std::get_if<RegisterService>(&event.notification)) check_layout(service->layout);
  if (const auto* service = std::get_if<UnregisterService>(&event.notification)) check_layout(service->layout);
  if (std::holds_alternative<Probe>(event.notification) && probed != probe_results_.end()) {
    event.violations.push_back("a second probe of the same process");
  }
}

GateAnswer Host::OnRequest(const GateRequest& request) {
  Event event = DecodeAndCheck(request);
  const MessageKind kind = KindOf(event.notification);
  const std::optional<Fault> fault = faults_.Take(kind);
  event.outcome = OutcomeOf(fault);
  GateAnswer answer;
  switch (event.outcome) {
    case Outcome::kTaken:
      answer = AnswerTo(request, event);
      break;
    case Outcome::kResubmit:
      answer.status = kStatusResubmit;
      resubmissions_[request.thread] = request;
      break;
    case Outcome::kFailed:
      answer.status = kStatusFailure;
      break;
    case Outcome::kRejected:
      answer.status = fault->status;
      break;
    case Outcome::kWriteFailed:
      answer.write_error = fault->error;
      break;
  }
  if (fault && fault->action == FaultAction::kGarbage) {
    answer.buffers.clear();
    for (const GateBuffer& buffer : request.buffers) answer.buffers.push_back(faults_.Garbage(buffer.size));
    event.remarks.push_back("answered with garbage");
  }
  answer.delay = faults_.DelayOf(kind);
  Record(std::move(event));
  return answer;
}

GateAnswer Host::AnswerTo(const GateRequest& request, Event& event) {
  GateAnswer answer;
  switch (KindOf(event.notification)) {
    case MessageKind::kProbe: {
      const std::int32_t result = faults_.ProbeResult();
      probe_results_[request.process] = result;
      AnswerService(request, result, answer);
      break;
    }
    case MessageKind::kRegister:
    case MessageKind::kUnregister:
      AnswerService(request, 0, answer);
      break;
    case MessageKind::kFetch:
      AnswerFetch(request, answer, event);
      break;
    case MessageKind::kUnknown:
      answer.status = kStatusRejected;
      event.outcome = Outcome::kRejected;
      break;
    default:
      break;
  }
  return answer;
}

void Host::AnswerFetch(const GateRequest& request, GateAnswer& answer, Event& event) {
  FetchReply reply = commands_.Serve(std::get<Fetch>(event.notification));
  if (!reply.violation.empty()) event.violations.push_back(std::move(reply.violation));
  if (!reply.remark.empty()) event.remarks.push_back(std::move(reply.remark));
  if (reply.served) {
    event.command = Describe(*reply.served);
    model_.CommandServed(request.process, *reply.served);
  }
  answer.buffers = {Bytes(), std::move(reply.bytes)};
}

void Host::OnProblem(pid_t thread, const std::string& text) {
  Event event;
  event.agent = thread;
  event.thread = thread;
  event.outcome = Outcome::kWriteFailed;
  event.violations.push_back(text);
  Record(std::move(event));
}

int Host::OnOpen(pid_t) {
  const int error = faults_.OpenError();
  if (error == 0) ++opens_;
  return error;
}

void Host::Record(Event event) {
  model_.Apply(std::move(event));
  if (observer_) observer_();
}

}  // namespace qel::host
