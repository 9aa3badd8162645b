#include "Bodies.h"

#include "orka/codec/MessageTable.h"
#include "orka/codec/Texts.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <vector>

namespace {

namespace pb = google::protobuf;

std::string TypeOf(const pb::FieldDescriptor& field) {
  if (field.message_type() != nullptr) {
    return field.message_type()->full_name();
  }
  return field.enum_type() != nullptr ? field.enum_type()->full_name() : field.type_name();
}

std::string Fields(const pb::Descriptor& type) {
  std::ostringstream text;
  for (int i = 0; i < type.field_count(); ++i) {
    const pb::FieldDescriptor& field = *type.field(i);
    text << (i == 0 ? " " : ", ") << field.number() << " `" << field.name() << "` "
         << (field.is_repeated() ? "repeated " : "") << TypeOf(field);
  }
  for (int i = 0; i < type.real_oneof_decl_count(); ++i) {
    text << (i == 0 ? "; one of" : ", or of");
    const pb::OneofDescriptor& oneof = *type.oneof_decl(i);
    for (int k = 0; k < oneof.field_count(); ++k) {
      text << ' ' << oneof.field(k)->number();
    }
  }
  return text.str();
}

std::string Values(const pb::EnumDescriptor& type) {
  std::ostringstream text;
  for (int i = 0; i < type.value_count(); ++i) {
    text << (i == 0 ? " " : ", ") << type.value(i)->number() << ' ' << type.value(i)->name();
  }
  return text.str();
}

// Adds the row of a message, and those of what stands in it.
void Add(std::map<std::string, std::string>& rows, const pb::Descriptor& type) {
  if (!rows.emplace(type.full_name(), Fields(type)).second) {
    return;
  }
  for (int i = 0; i < type.field_count(); ++i) {
    if (const auto* message = type.field(i)->message_type()) {
      Add(rows, *message);
    } else if (const auto* values = type.field(i)->enum_type()) {
      rows.emplace(values->full_name(), Values(*values));
    }
  }
}

// Calls `use` with each protobuf message that is a body.
template <class Use>
void ForEachBody(Use use) {
  std::ifstream definitions(KOVA_DESCRIPTOR_SET, std::ios::binary);
  pb::FileDescriptorSet set;
  set.ParseFromIstream(&definitions);
  pb::DescriptorPool pool;
  for (const auto& file : set.file()) {
    pool.BuildFile(file);
  }
  for (const auto& row : orka::codec::kMessageTable) {
    std::string name(row.type);
    if (const auto colons = name.find("::"); colons != std::string::npos) {
      name.replace(colons, 2, ".");
    }
    if (const auto* type = pool.FindMessageTypeByName(name)) {
      use(*type);
    }
  }
}

// Adds the texts of a message, each by the numbers of the fields that lead to it.
void AddTexts(std::set<std::string>& texts, const pb::Descriptor& type, const std::string& path) {
  for (int i = 0; i < type.field_count(); ++i) {
    const pb::FieldDescriptor& field = *type.field(i);
    const std::string inner = path + ' ' + std::to_string(field.number());
    if (field.type() == pb::FieldDescriptor::TYPE_STRING) {
      texts.insert(inner);
    } else if (field.message_type() != nullptr) {
      AddTexts(texts, *field.message_type(), inner);
    }
  }
}

}  // namespace

std::string Bodies() {
  std::map<std::string, std::string> rows;
  ForEachBody([&rows](const pb::Descriptor& type) { Add(rows, type); });
  std::string table = "| Message or enumeration | Fields, or values |\n|---|---|\n";
  for (const auto& [name, content] : rows) {
    table.append("| ").append(name).append(" |").append(content).append(" |\n");
  }
  return table;
}

std::string TextThatDiffers() {
  std::set<std::string> texts;
  ForEachBody([&texts](const pb::Descriptor& type) { AddTexts(texts, type, type.full_name()); });
  std::set<std::string> listed;
  for (const auto& [message, path] : orka::codec::kTextFields) {
    std::string text(message);
    for (const unsigned number : path) {
      text += number != 0 ? ' ' + std::to_string(number) : "";
    }
    listed.insert(text);
  }
  std::vector<std::string> differ;
  std::ranges::set_symmetric_difference(texts, listed, std::back_inserter(differ));
  return differ.empty() ? "" : differ.front();
}
