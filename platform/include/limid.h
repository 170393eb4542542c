// Stand-in for the element's logical interface naming: between a 4-byte
// logical interface id and an interface name.
//
// The id's four bytes are read in memory order (byte 0 first), so a stored id
// renders the same on big- and little-endian boards:
//   byte 0  interface kind: 1 "eth", 2 "lag", 3 "vlan", 4 "lo"
//   byte 1  slot, byte 2..3 port (byte 2 high, byte 3 low)
//   "eth 1/3" is kind 1, slot 1, port 3; "lag 12", "vlan 100", "lo 0" carry the
//   port only (slot 0).
// Any other id gets the readable name "limid 0x%08x" (bytes in memory order),
// which limid_from_intfname also accepts. Names contain exactly one blank.

#ifndef PLATFORM_INCLUDE_LIMID_H_
#define PLATFORM_INCLUDE_LIMID_H_

#include <stddef.h>
#include <stdint.h>

#include "platform_export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Writes the name of `limid` (a value whose bytes are in memory order) into
// `buf` of `size` bytes, NUL-terminated. Returns 0, or -1 when `buf` is null or
// too small (then `buf` holds as much as fits, NUL-terminated, if size > 0).
ELEM_PLATFORM_EXPORT int limid_to_intfname(uint32_t limid, char* buf, size_t size);

// Parses a name produced by limid_to_intfname. Returns 0 and sets `*limid`, or
// -1 for a null argument or a name outside the scheme (`*limid` unchanged).
ELEM_PLATFORM_EXPORT int limid_from_intfname(const char* name, uint32_t* limid);

#ifdef __cplusplus
}
#endif

#endif  // PLATFORM_INCLUDE_LIMID_H_
