// The frame format of the messaging transport: the one definition used by the
// client library, ipc-router, its fuzz target and the links between routers.
//
// A frame is a 24-byte header followed by `size` payload bytes. Every header
// field is an unsigned integer in big-endian order, written and read by
// EncodeFrameHeader and ParseFrame only (never by copying a struct), so that
// boards of either byte order understand each other:
//
//   offset  bytes  field
//        0      1  version   kFrameVersion
//        1      1  command   a Command
//        2      2  reserved  0
//        4      4  size      payload bytes, at most MaxPayload(command)
//        8      4  type      message type chosen by the application
//       12      4  from      sender address (always set by the router)
//       16      4  to        destination address
//       20      4  arg       command argument (watch id, status code)
//
// Between routers the same frames travel over TCP, with the link commands:
// `from` and `to` are then addresses on the node that owns the endpoint.

#ifndef DB_INTF_SRC_LIB_IPC_FRAME_H_
#define DB_INTF_SRC_LIB_IPC_FRAME_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "db/ipc.h"

namespace db {
namespace ipc {

constexpr uint8_t kFrameVersion = 1;
constexpr size_t kFrameHeaderSize = 24;

// Commands 1 to 31 are spoken between a client and its router; 32 and up are
// kept for the links between routers.
enum Command : uint8_t {
  kOpen = 1,         // client: payload = endpoint name
  kOpenReply = 2,    // router: to = the new address, arg = OpenStatus
  kSend = 3,         // client: to, type, payload
  kMessage = 4,      // router: from, type, payload (also find notices)
  kFind = 5,         // client: type, payload = name
  kWatch = 6,        // client: to = watched address, type, arg = watch id
  kUnwatch = 7,      // client: arg = watch id
  kWatchFired = 8,   // router: from = address gone, type, arg = watch id
  kStatus = 9,       // operator: asks for the status text
  kStatusText = 10,  // router: a piece of the status text; the router closes after the last

  // Between routers. The dialling router sends kHello first; the other answers
  // with its own kHello, or closes. Then each sends kEndpointUp for every
  // endpoint it has, and from then on for every endpoint that opens.
  kHello = 32,         // payload = node name, arg = heartbeat interval in ms (> 0)
  kHeartbeat = 33,     // nothing; sent every interval
  kEndpointUp = 34,    // from = address, payload = endpoint name
  kEndpointDown = 35,  // from = address
  kLinkMessage = 36,   // from = sender, to = receiver (on the receiving node), type, payload
  kCredit = 37,        // to = receiver on the sending node, arg = bytes of its messages delivered
};

// arg of kOpenReply. Our own numbers rather than errno values, which differ
// between architectures.
enum OpenStatus : uint32_t { kOpenOk = 0, kOpenNameTaken = 1, kOpenBadName = 2 };

struct FrameHeader {
  uint8_t command = 0;
  uint32_t size = 0;
  uint32_t type = 0;
  uint32_t from = 0;
  uint32_t to = 0;
  uint32_t arg = 0;
};

enum class ParseResult { kFrame, kNeedMore, kMalformed };

// Largest payload `command` may carry, or -1 for an unknown command.
int64_t MaxPayload(uint8_t command);

// Looks at the bytes `data[0..len)` of a stream. kFrame: a whole frame is
// there; `*header` is filled and the frame takes kFrameHeaderSize +
// header->size bytes. kNeedMore: the bytes are a valid beginning of a frame.
// kMalformed: they can never become a valid frame (bad version, unknown
// command, reserved bits set, size over the command's limit); this is decided
// from the bytes at hand, so a huge length is refused without waiting for it.
// Pure: no allocation, no state.
ParseResult ParseFrame(const uint8_t* data, size_t len, FrameHeader* header);

// Writes the header of a frame into `out` (kFrameHeaderSize bytes).
void EncodeFrameHeader(const FrameHeader& header, uint8_t* out);

// Appends a whole frame (header, then `header.size` bytes of `payload`).
void AppendFrame(const FrameHeader& header, const void* payload, std::string* out);

// A valid endpoint name: 1 to IPC_MAX_NAME bytes, each printable ASCII and not
// a blank or "/".
bool ValidName(const char* name, size_t len);

// A valid name to find: a local name, or "NODE/name" with two valid names.
bool ValidFindName(const char* name, size_t len);

// Microseconds on the monotonic clock: the time base of every time-out and
// heartbeat of the client and the router.
int64_t NowUs();

}  // namespace ipc
}  // namespace db

#endif  // DB_INTF_SRC_LIB_IPC_FRAME_H_
