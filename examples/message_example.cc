// Storing protobuf messages with DbMessageObject.
//
// An application normally passes the descriptor of its generated message type
// (Port::descriptor()). To stay self-contained, this example describes the
// message type in code and builds messages dynamically; the library sees only
// the descriptor and reflection either way.
//
//   message Port {
//     optional string name  = 1;
//     optional uint32 speed = 2;
//     optional bool   up    = 3;
//     repeated int32  vlans = 4;
//   }
//
// Usage: message_example [SQLITE_FILE]   (default: an in-memory database)

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/message.h>

#include "db/db.h"

namespace {

namespace pb = google::protobuf;

void AddField(pb::DescriptorProto* message, const char* name, int number,
              pb::FieldDescriptorProto::Type type, pb::FieldDescriptorProto::Label label) {
  pb::FieldDescriptorProto* field = message->add_field();
  field->set_name(name);
  field->set_number(number);
  field->set_type(type);
  field->set_label(label);
}

// Builds a Port the way generated code would: set_name, set_speed, ...
std::unique_ptr<pb::Message> MakePort(const pb::Message& prototype, const std::string& name,
                                      uint32_t speed, bool up, const std::vector<int32_t>& vlans) {
  std::unique_ptr<pb::Message> port(prototype.New());
  const pb::Descriptor* type = port->GetDescriptor();
  const pb::Reflection* reflection = port->GetReflection();
  reflection->SetString(port.get(), type->FindFieldByName("name"), name);
  reflection->SetUInt32(port.get(), type->FindFieldByName("speed"), speed);
  reflection->SetBool(port.get(), type->FindFieldByName("up"), up);
  for (int32_t vlan : vlans) reflection->AddInt32(port.get(), type->FindFieldByName("vlans"), vlan);
  return port;
}

}  // namespace

int main(int argc, char** argv) {
  // Describe the message type.
  pb::FileDescriptorProto file;
  file.set_name("port.proto");
  file.set_package("example");
  pb::DescriptorProto* port_type = file.add_message_type();
  port_type->set_name("Port");
  AddField(port_type, "name", 1, pb::FieldDescriptorProto::TYPE_STRING,
           pb::FieldDescriptorProto::LABEL_OPTIONAL);
  AddField(port_type, "speed", 2, pb::FieldDescriptorProto::TYPE_UINT32,
           pb::FieldDescriptorProto::LABEL_OPTIONAL);
  AddField(port_type, "up", 3, pb::FieldDescriptorProto::TYPE_BOOL,
           pb::FieldDescriptorProto::LABEL_OPTIONAL);
  AddField(port_type, "vlans", 4, pb::FieldDescriptorProto::TYPE_INT32,
           pb::FieldDescriptorProto::LABEL_REPEATED);
  pb::DescriptorPool pool;
  if (pool.BuildFile(file) == nullptr) {
    std::fprintf(stderr, "cannot build the message type\n");
    return 1;
  }
  const pb::Descriptor* descriptor = pool.FindMessageTypeByName("example.Port");
  pb::DynamicMessageFactory factory(&pool);
  const pb::Message* prototype = factory.GetPrototype(descriptor);

  // Start the library once, then open a table whose fields are the message's.
  qelmw_t* middleware = qelmw_create("message_example");
  db::Init(middleware);
  const bool in_memory = argc < 2;
  const std::string database = in_memory ? "message_example" : argv[1];
  int rc = 0;
  {
    db::DbMessageObject ports(database, "ports", in_memory, db::kSqlite, descriptor);
    rc = ports.CreateObjTables();
    if (rc != 0) std::fprintf(stderr, "table not created (rc=%d), using it as it is\n", rc);

    // Store two messages.
    uint32_t eth1 = 0;
    uint32_t eth2 = 0;
    auto first = MakePort(*prototype, "eth 1/1", 1000, true, {10, 20});
    auto second = MakePort(*prototype, "eth 1/2", 100, false, {20});
    if ((rc = ports.StoreMessageObject(&eth1, first.get())) != 0 ||
        (rc = ports.StoreMessageObject(&eth2, second.get())) != 0) {
      std::fprintf(stderr, "store failed: rc=%d\n", rc);
      return 1;
    }

    // Read one back.
    std::unique_ptr<pb::Message> copy(prototype->New());
    if ((rc = ports.RetrieveMessageObject(eth1, copy.get())) != 0) {
      std::fprintf(stderr, "retrieve failed: rc=%d\n", rc);
      return 1;
    }
    std::printf("record %u:\n%s", static_cast<unsigned>(eth1), copy->DebugString().c_str());

    // Find by the fields a message sets: here every port that is down.
    std::unique_ptr<pb::Message> filter(prototype->New());
    filter->GetReflection()->SetBool(filter.get(), descriptor->FindFieldByName("up"), false);
    std::vector<uint32_t> ids;
    if ((rc = ports.RetrieveMessageObjects(&ids, filter.get())) != 0) {
      std::fprintf(stderr, "query failed: rc=%d\n", rc);
      return 1;
    }
    std::printf("ports down:");
    for (uint32_t id : ids) std::printf(" %u", static_cast<unsigned>(id));
    std::printf("\n");
  }
  qelmw_destroy(middleware);
  return 0;
}
