// Shared pieces of the benchmark programs: library start-up with logging sent
// to /dev/null, scratch directories, the benchmark record and its stored
// texts, so that every library operation can be set beside the raw backend
// doing the same storage work.
//
// The record: five scalar fields (integer, string, float, bytes, and a string
// holding a MAC address) and one repeated field of four integers.

#ifndef DB_INTF_BENCH_BENCH_UTIL_H_
#define DB_INTF_BENCH_BENCH_UTIL_H_

#include <malloc.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "db/db.h"
#include "qelmw.h"
#include "zlog.h"

namespace db_bench {

// Field names, in the byte-wise order in which both backends lay them out.
constexpr char kBlobField[] = "blob";    // bytes
constexpr char kMacField[] = "mac";      // string, rendered as a MAC address
constexpr char kNameField[] = "name";    // string
constexpr char kPortField[] = "port";    // integer
constexpr char kRatioField[] = "ratio";  // float
constexpr char kVlanField[] = "vlans";   // repeated integer, four elements
constexpr int32_t kVlansPerRecord = 4;
// Distinct values of the "port" field: a filter on one port matches
// 1/kPortValues of the records.
constexpr uint32_t kPortValues = 10;

// Calls db::Init once and sends every log line to /dev/null, so that the
// logging stand-in does not dominate the figures.
inline void InitLibraryQuietly() {
  static bool done = false;
  if (done) return;
  done = true;
  static FILE* null_stream = std::fopen("/dev/null", "w");
  zlog_set_output(null_stream);
  static qelmw_t* mw = qelmw_create("db-intf-bench");
  db::Init(mw);
}

// A fresh directory under $TMPDIR (or /tmp), removed with its contents when
// the object goes.
class ScratchDir {
 public:
  ScratchDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/db-intf-bench-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) std::abort();
    path_ = buffer.data();
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// The values of record number `n` (any number, not necessarily its id).
struct RecordValues {
  int32_t port;
  std::string name;
  float ratio;
  std::string ratio_text;  // the float as stream output writes it
  std::vector<uint8_t> blob;
  std::string mac;
  int32_t vlans[kVlansPerRecord];
};

inline RecordValues MakeRecordValues(uint32_t n) {
  RecordValues v;
  v.port = static_cast<int32_t>(n % kPortValues);
  v.name = "host-" + std::to_string(n);
  v.ratio = 0.25f * static_cast<float>(n % 64) + 0.5f;
  std::ostringstream ratio_text;
  ratio_text << v.ratio;
  v.ratio_text = ratio_text.str();
  // Bytes that need no escaping in SQL text (no quote, NUL or 0xFF), so that
  // hand-written statements carry exactly the library's text.
  v.blob = {0x10, 0x20, 0x30, 0x40, static_cast<uint8_t>(0x41 + n % 26), 0x60, 0x70, 0x80};
  char mac[18];
  std::snprintf(mac, sizeof(mac), "00:1a:2b:%02x:%02x:%02x", (n >> 16) & 0xFF, (n >> 8) & 0xFF,
                n & 0xFF);
  v.mac = mac;
  for (int32_t i = 0; i < kVlansPerRecord; ++i) {
    v.vlans[i] = static_cast<int32_t>(100 + (n + static_cast<uint32_t>(i)) % 4000);
  }
  return v;
}

// Declares the benchmark record's fields on `object` (before CreateObjTables).
inline void DeclareRecordSchema(db::DbObject* object) {
  object->AppendScalarAttribute(kBlobField, db::Attribute(db::kBytes), db::kHex);
  object->AppendScalarAttribute(kMacField, db::Attribute(db::kString), db::kMac);
  object->AppendScalarAttribute(kNameField, db::Attribute(db::kString), db::kDefault);
  object->AppendScalarAttribute(kPortField, db::Attribute(db::kInteger), db::kDefault);
  object->AppendScalarAttribute(kRatioField, db::Attribute(db::kFloat), db::kDefault);
  object->AppendCompositeAttribute(kVlanField, db::Attribute(db::kInteger), db::kDefault);
}

// Fills the object's current record with record number `n`.
inline void FillRecord(db::DbObject* object, uint32_t n) {
  const RecordValues v = MakeRecordValues(n);
  db::ScalarFields& scalars = object->scalar_fields();
  scalars[kBlobField] = v.blob;
  scalars[kMacField] = v.mac;
  scalars[kNameField] = v.name;
  scalars[kPortField] = v.port;
  scalars[kRatioField] = v.ratio;
  std::vector<db::Attribute>& vlans = object->composite_fields()[kVlanField].second;
  vlans.clear();
  for (int32_t vlan : v.vlans) {
    db::Attribute element(db::kInteger);
    element = vlan;
    vlans.push_back(element);
  }
}

// A scalar filter with one set field.
template <class T>
db::ScalarFields OneFieldFilter(const std::string& name, const T& value) {
  db::ScalarFields filter;
  filter[name] = value;
  return filter;
}

// Bytes currently allocated through malloc.
inline uint64_t AllocatedBytes() { return static_cast<uint64_t>(mallinfo2().uordblks); }

}  // namespace db_bench

#endif  // DB_INTF_BENCH_BENCH_UTIL_H_
