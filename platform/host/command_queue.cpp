#include "host/command_queue.h"

namespace qel::host {
namespace {

constexpr std::uint32_t kLargeCommand = 126;

Bytes NoCommand() {
  Bytes bytes;
  for (const std::uint32_t word : {0U, 2U, UINT32_MAX, 0U, 0U}) AppendU32(bytes, word);
  return bytes;
}

Bytes Announcement(std::uint32_t size) {
  Bytes payload;
  AppendU32(payload, size);
  return MakeCommand(kLargeCommand, payload).block;
}

}  // namespace

void CommandQueue::Push(HostCommand command) {
  const std::lock_guard lock(mutex_);
  waiting_.push_back(std::move(command));
}

std::size_t CommandQueue::Waiting() const {
  const std::lock_guard lock(mutex_);
  return waiting_.size() + (announced_ ? 1 : 0);
}

FetchReply CommandQueue::Serve(const Fetch& fetch) {
  const std::lock_guard lock(mutex_);
  FetchReply reply = fetch.large ? ServeLarge(fetch) : ServeFirst(fetch);
  if (reply.bytes.size() > fetch.capacity) reply.bytes.resize(fetch.capacity);
  return reply;
}

FetchReply CommandQueue::ServeFirst(const Fetch& fetch) {
  FetchReply reply;
  if (announced_) {
    reply.remark = "the large command was never fetched: " + Describe(*announced_);
    announced_.reset();
  }
  if (waiting_.empty()) {
    reply.bytes = NoCommand();
    return reply;
  }
  HostCommand command = std::move(waiting_.front());
  waiting_.pop_front();
  if (command.announced_size || command.block.size() > fetch.capacity) {
    reply.bytes = Announcement(command.announced_size.value_or(static_cast<std::uint32_t>(command.block.size())));
    announced_ = std::move(command);
  } else {
    reply.bytes = command.block;
    reply.served = std::move(command);
  }
  return reply;
}

FetchReply CommandQueue::ServeLarge(const Fetch& fetch) {
  FetchReply reply;
  if (!announced_) {
    reply.violation = "fetch: a large command is asked for, but none was announced";
    reply.bytes = NoCommand();
    return reply;
  }
  const std::uint32_t size = announced_->announced_size.value_or(static_cast<std::uint32_t>(announced_->block.size()));
  if (fetch.capacity != size) {
    reply.violation = Format("fetch: room for %u bytes, announced were %u", fetch.capacity, size);
  }
  reply.bytes = announced_->block;
  reply.served = std::move(announced_);
  announced_.reset();
  return reply;
}

}  // namespace qel::host
