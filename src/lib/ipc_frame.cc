#include "ipc_frame.h"

#include <time.h>

#include <cstring>

namespace db {
namespace ipc {
namespace {

uint32_t Get32(const uint8_t* p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

void Put32(uint32_t v, uint8_t* p) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

}  // namespace

int64_t MaxPayload(uint8_t command) {
  switch (command) {
    case kOpen:
    case kHello:
    case kEndpointUp:
      return IPC_MAX_NAME;
    case kFind:
      return 2 * IPC_MAX_NAME + 1;  // "NODE/name"
    case kSend:
    case kMessage:
    case kStatusText:
    case kLinkMessage:
      return IPC_MAX_SIZE;
    case kOpenReply:
    case kWatch:
    case kUnwatch:
    case kWatchFired:
    case kStatus:
    case kHeartbeat:
    case kEndpointDown:
    case kCredit:
      return 0;
    default:
      return -1;
  }
}

ParseResult ParseFrame(const uint8_t* data, size_t len, FrameHeader* header) {
  // Each check runs as soon as its bytes are there, so that garbage is refused
  // early and a length never causes an allocation before it is accepted.
  if (len >= 1 && data[0] != kFrameVersion) return ParseResult::kMalformed;
  if (len >= 2 && MaxPayload(data[1]) < 0) return ParseResult::kMalformed;
  if (len >= 3 && data[2] != 0) return ParseResult::kMalformed;
  if (len >= 4 && data[3] != 0) return ParseResult::kMalformed;
  if (len < 8) return ParseResult::kNeedMore;
  uint32_t size = Get32(data + 4);
  if (size > MaxPayload(data[1])) return ParseResult::kMalformed;
  if (len < kFrameHeaderSize || len - kFrameHeaderSize < size) return ParseResult::kNeedMore;
  header->command = data[1];
  header->size = size;
  header->type = Get32(data + 8);
  header->from = Get32(data + 12);
  header->to = Get32(data + 16);
  header->arg = Get32(data + 20);
  return ParseResult::kFrame;
}

void EncodeFrameHeader(const FrameHeader& header, uint8_t* out) {
  out[0] = kFrameVersion;
  out[1] = header.command;
  out[2] = 0;
  out[3] = 0;
  Put32(header.size, out + 4);
  Put32(header.type, out + 8);
  Put32(header.from, out + 12);
  Put32(header.to, out + 16);
  Put32(header.arg, out + 20);
}

void AppendFrame(const FrameHeader& header, const void* payload, std::string* out) {
  uint8_t head[kFrameHeaderSize];
  EncodeFrameHeader(header, head);
  out->append(reinterpret_cast<const char*>(head), sizeof(head));
  if (header.size > 0) out->append(static_cast<const char*>(payload), header.size);
}

bool ValidName(const char* name, size_t len) {
  if (len == 0 || len > IPC_MAX_NAME) return false;
  for (size_t i = 0; i < len; ++i) {
    // Unsigned: plain char may be signed or unsigned depending on the CPU.
    unsigned char c = static_cast<unsigned char>(name[i]);
    if (c <= ' ' || c > '~' || c == '/') return false;
  }
  return true;
}

bool ValidFindName(const char* name, size_t len) {
  const void* slash = memchr(name, '/', len);
  if (slash == nullptr) return ValidName(name, len);
  size_t node = static_cast<size_t>(static_cast<const char*>(slash) - name);
  return ValidName(name, node) && ValidName(name + node + 1, len - node - 1);
}

int64_t NowUs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

}  // namespace ipc
}  // namespace db
