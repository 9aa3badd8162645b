#include "ProtoJson.h"
#include "orka/codec/MessageTable.h"
#include "orka/codec/Texts.h"

#include <gmock/gmock.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace radiosim {
namespace {

namespace pb = google::protobuf;

// The definitions as rows of a table, one a message or enumeration.
class Rows {
 public:
  void Add(const pb::Descriptor& type) {
    if (!seen_.insert(type.full_name()).second) {
      return;
    }
    std::ostringstream row;
    row << "| " << type.full_name() << " |";
    for (int i = 0; i < type.field_count(); ++i) {
      const pb::FieldDescriptor& field = *type.field(i);
      row << (i == 0 ? " " : ", ") << field.number() << " `" << field.name() << "` "
          << (field.is_repeated() ? "repeated " : "");
      if (field.message_type() != nullptr) {
        row << field.message_type()->full_name();
      } else if (field.enum_type() != nullptr) {
        row << field.enum_type()->full_name();
      } else {
        row << field.type_name();
      }
    }
    for (int i = 0; i < type.real_oneof_decl_count(); ++i) {
      row << (i == 0 ? "; one of " : ", or of ");
      const pb::OneofDescriptor& oneof = *type.oneof_decl(i);
      for (int k = 0; k < oneof.field_count(); ++k) {
        row << (k == 0 ? "" : " ") << oneof.field(k)->number();
      }
    }
    rows_.insert(row.str() + " |");
    for (int i = 0; i < type.field_count(); ++i) {
      if (const auto* message = type.field(i)->message_type()) {
        Add(*message);
      } else if (const auto* values = type.field(i)->enum_type()) {
        Add(*values);
      }
    }
  }
  const std::set<std::string>& All() const { return rows_; }

 private:
  void Add(const pb::EnumDescriptor& type) {
    std::ostringstream row;
    row << "| " << type.full_name() << " |";
    for (int i = 0; i < type.value_count(); ++i) {
      row << (i == 0 ? " " : ", ") << type.value(i)->number() << ' ' << type.value(i)->name();
    }
    rows_.insert(row.str() + " |");
  }

  std::set<std::string> seen_;
  std::set<std::string> rows_;
};

// The paths to the texts of a message, by the numbers of the fields.
void AddTexts(const pb::Descriptor& type, const std::string& path, std::set<std::string>& texts) {
  for (int i = 0; i < type.field_count(); ++i) {
    const pb::FieldDescriptor& field = *type.field(i);
    const std::string inner = path + " " + std::to_string(field.number());
    if (field.type() == pb::FieldDescriptor::TYPE_STRING) {
      texts.insert(inner);
    } else if (field.message_type() != nullptr) {
      AddTexts(*field.message_type(), inner, texts);
    }
  }
}

TEST(RadioLinkDocument, TellsTheFieldsOfEveryBody) {
  std::ifstream definitions(RADIOSIM_DEFINITIONS, std::ios::binary);
  pb::FileDescriptorSet set;
  ASSERT_TRUE(set.ParseFromIstream(&definitions));
  pb::DescriptorPool pool;
  for (const auto& file : set.file()) {
    pool.BuildFile(file);
  }
  Rows rows;
  std::set<std::string> texts;
  for (const auto& row : orka::codec::kMessageTable) {
    if (const auto* type = pool.FindMessageTypeByName(ProtoName(row.type))) {
      rows.Add(*type);
      AddTexts(*type, type->full_name(), texts);
    }
  }
  std::set<std::string> known_texts;
  for (const auto& [message, path] : orka::codec::kTextFields) {
    std::string text(message);
    for (const unsigned number : path) {
      text += number != 0 ? " " + std::to_string(number) : "";
    }
    known_texts.insert(text);
  }
  EXPECT_EQ(known_texts, texts);
  std::ostringstream expected;
  for (const std::string& row : rows.All()) {
    expected << row << '\n';
  }
  ASSERT_GT(rows.All().size(), 50U);
  const std::string document =
      (std::ostringstream() << std::ifstream(RADIO_LINK_DOCUMENT).rdbuf()).str();
  EXPECT_THAT(document, testing::HasSubstr("|---|---|\n" + expected.str() + "\n"));
}

}  // namespace
}  // namespace radiosim
