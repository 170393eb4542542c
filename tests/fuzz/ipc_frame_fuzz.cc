// The messaging frame parser on a client's or peer router's stream, and the names it carries.

#include <cstdlib>
#include <cstring>
#include <string>

#include "ipc_frame.h"

using db::ipc::FrameHeader;
using db::ipc::ParseResult;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  db::ipc::ValidFindName(reinterpret_cast<const char*>(data), size);
  size_t pos = 0;
  FrameHeader h;
  while (db::ipc::ParseFrame(data + pos, size - pos, &h) == ParseResult::kFrame) {
    // Inside the input, within its command's limit, encoding back to the same header bytes.
    const size_t len = db::ipc::kFrameHeaderSize + h.size;
    uint8_t again[db::ipc::kFrameHeaderSize];
    db::ipc::EncodeFrameHeader(h, again);
    if (len > size - pos || h.size > db::ipc::MaxPayload(h.command) ||
        memcmp(again, data + pos, sizeof(again)) != 0) {
      abort();
    }
    // Every shorter prefix of it is a valid beginning, never malformed.
    for (size_t cut : {size_t{0}, size_t{1}, size_t{7}, db::ipc::kFrameHeaderSize, len - 1}) {
      if (cut < len && db::ipc::ParseFrame(data + pos, cut, &h) != ParseResult::kNeedMore) abort();
    }
    // A name opened or announced can be found from another node as "NODE/name".
    const char* payload = reinterpret_cast<const char*>(data + pos + db::ipc::kFrameHeaderSize);
    if (db::ipc::MaxPayload(h.command) == IPC_MAX_NAME && db::ipc::ValidName(payload, h.size)) {
      std::string remote = std::string(payload, h.size) + "/" + std::string(payload, h.size);
      if (!db::ipc::ValidFindName(remote.data(), remote.size())) abort();
    }
    pos += len;
  }
  return 0;
}
