// Quickstart: a table of network ports, from declaration to debug commands.
//
// Declares the table (an integer, a string, a MAC address, an IPv4 address and
// a repeated field of VLAN ids), stores a few ports, updates one, filters on a
// scalar field and on the repeated field, deletes one, and finally shows the
// table as an operator sees it through the debug commands.
//
// Usage: quickstart [--db PATH] [--sqlite]
//   --db PATH   database location (default: next to this program,
//               quickstart-db for LevelDB, quickstart.sqlite for SQLite)
//   --sqlite    use a SQLite file instead of a LevelDB directory
// The database is removed and written anew on every run.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "db/db.h"
#include "elem_cmd.h"
#include "qelmw.h"

namespace {

constexpr char kTable[] = "ports";

// One port as the application knows it.
struct Port {
  const char* name;
  int32_t speed;                 // Mbit/s
  std::vector<uint8_t> mac;      // 6 raw bytes
  std::vector<uint8_t> address;  // IPv4, 4 bytes in network order
  std::vector<int32_t> vlans;
};

// Declares the fields. The PrintFormat of each field decides how debug
// commands and ToString show it, and how an operator types it in a filter.
void DeclarePorts(db::DbObject* ports) {
  ports->AppendScalarAttribute("name", db::Attribute(db::kString), db::kDefault);
  ports->AppendScalarAttribute("speed", db::Attribute(db::kInteger), db::kDefault);
  ports->AppendScalarAttribute("mac", db::Attribute(db::kBytes), db::kMac);
  ports->AppendScalarAttribute("address", db::Attribute(db::kBytes), db::kIpAddress);
  ports->AppendCompositeAttribute("vlans", db::Attribute(db::kInteger), db::kDefault);
}

// Fills the object's current record from `port`.
void SetRecord(db::DbObject* ports, const Port& port) {
  ports->scalar_fields()["name"] = port.name;
  ports->scalar_fields()["speed"] = port.speed;
  ports->scalar_fields()["mac"] = port.mac;
  ports->scalar_fields()["address"] = port.address;
  std::vector<db::Attribute>& vlans = ports->composite_fields()["vlans"].second;
  vlans.clear();
  for (int32_t vlan : port.vlans) {
    db::Attribute value(db::kInteger);
    value = vlan;
    vlans.push_back(value);
  }
}

void PrintIds(const char* what, const std::vector<uint32_t>& ids) {
  printf("%s:", what);
  for (uint32_t id : ids) printf(" %u", id);
  printf("\n");
}

std::string ProgramDirectory() {
  std::error_code error;
  std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::string(".") : self.parent_path().string();
}

int Fail(const char* step, int rc) {
  fprintf(stderr, "quickstart: %s failed with %d\n", step, rc);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  bool sqlite = false;
  std::string path;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--sqlite") {
      sqlite = true;
    } else if (arg == "--db" && i + 1 < argc) {
      path = argv[++i];
    } else {
      fprintf(stderr, "Usage: quickstart [--db PATH] [--sqlite]\n");
      return 2;
    }
  }
  const std::string directory = ProgramDirectory();
  if (path.empty()) path = directory + (sqlite ? "/quickstart.sqlite" : "/quickstart-db");
  path = std::filesystem::absolute(path).lexically_normal().string();
  // A fresh database on every run, so that the output is the same each time.
  std::error_code error;
  std::filesystem::remove_all(path, error);

  // Once per process: the library's log category. Log lines go to stderr.
  qelmw_t* mw = qelmw_create("quickstart");
  db::Init(mw);

  {
    db::DbObject ports(path, kTable, false, sqlite ? db::kSqlite : db::kLevelDb);
    DeclarePorts(&ports);
    int rc = ports.CreateObjTables();
    if (rc != 0) return Fail("CreateObjTables", rc);

    const std::vector<Port> all = {
        {"eth0", 1000, {0x02, 0x00, 0x5e, 0x10, 0x00, 0x01}, {192, 168, 1, 1}, {10, 20}},
        {"eth1", 10000, {0x02, 0x00, 0x5e, 0x10, 0x00, 0x02}, {192, 168, 1, 2}, {20, 30}},
        {"eth2", 10000, {0x02, 0x00, 0x5e, 0x10, 0x00, 0x03}, {192, 168, 1, 3}, {30}},
        {"eth3", 100, {0x02, 0x00, 0x5e, 0x10, 0x00, 0x04}, {10, 0, 0, 4}, {}},
    };
    std::vector<uint32_t> ids;
    for (const Port& port : all) {
      SetRecord(&ports, port);
      uint32_t id = 0;
      rc = ports.StoreObject(&id);
      if (rc != 0) return Fail("StoreObject", rc);
      ids.push_back(id);
    }
    PrintIds("Stored ports with ids", ids);

    // Update: read the record, change what differs, write it back.
    rc = ports.RetrieveObject(ids[2], nullptr, nullptr);
    if (rc != 0) return Fail("RetrieveObject", rc);
    ports.scalar_fields()["speed"] = 25000;
    db::Attribute vlan(db::kInteger);
    vlan = 40;
    ports.composite_fields()["vlans"].second.push_back(vlan);
    rc = ports.UpdateObject(ids[2]);
    if (rc != 0) return Fail("UpdateObject", rc);
    printf("Updated port %u:\n%s\n", ids[2], ports.ToString().c_str());

    // Filters: only set attributes restrict. A repeated field matches when it
    // shares an element with the filter; it needs a scalar condition beside it.
    db::ScalarFields by_speed;
    by_speed["speed"] = 10000;
    std::vector<uint32_t> found;
    rc = ports.RetrieveObjects(&found, by_speed, db::CompositeFields());
    if (rc != 0) return Fail("RetrieveObjects (speed)", rc);
    PrintIds("Ports at 10000 Mbit/s", found);

    db::ScalarFields by_name;
    by_name["name"] = "eth0";
    db::Attribute twenty(db::kInteger);
    twenty = 20;
    db::CompositeFields by_vlan;
    by_vlan["vlans"] = {db::kInteger, {twenty}};
    rc = ports.RetrieveObjects(&found, by_name, by_vlan);
    if (rc != 0) return Fail("RetrieveObjects (vlan)", rc);
    PrintIds("Port eth0 when it carries VLAN 20", found);

    rc = ports.DeleteSingleObject(ids[3]);
    if (rc != 0) return Fail("DeleteSingleObject", rc);
    int size = 0;
    ports.GetObjTableSize(&size);
    printf("Deleted port %u; %d ports left\n", ids[3], size);

    // The operator's view: the same commands that an element's command shell
    // offers once the object installed them.
    ELEM_CMD_GROUP_ST* group = ElemCmdGroupCreate("quickstart");
    ports.InstallDebugCmd(group);
    const std::string filter = "Retrieve Records ports -s speed=10000 -c vlans=[30]";
    for (const std::string& line :
         {std::string("Get Size ports"), std::string("Dump ports all"),
          std::string("Retrieve Record ports ") + std::to_string(ids[0]), filter}) {
      printf("\n> %s\n", line.c_str());
      fflush(stdout);
      if (ElemCmdExecute(group, line.c_str(), stdout) != 0) printf("(no such command)\n");
    }
    ElemCmdGroupDestroy(group);
  }
  qelmw_destroy(mw);

  std::string shell = directory + "/../tools/db-shell/db-shell";
  shell = std::filesystem::exists(shell) ? std::filesystem::path(shell).lexically_normal().string()
                                         : std::string("db-shell");
  printf("\nOpen this database with db-shell:\n  %s %s %s\n", shell.c_str(),
         sqlite ? "--sqlite" : "--leveldb", path.c_str());
  return 0;
}
