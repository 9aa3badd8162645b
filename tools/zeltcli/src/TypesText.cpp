#include "TypesText.h"

#include "Accepted.h"
#include "JsonObject.h"

#include <array>
#include <cstddef>
#include <iomanip>
#include <sstream>
#include <vector>

namespace zelt::cli {
namespace {

namespace pb = google::protobuf;

constexpr int kMaxDepth = 8;

std::string AnswerText(const AcceptedType& accepted) {
  static constexpr std::array<std::string_view, 4> kHow = {
      "no answer", "answers with ", "answers with the message ", "the radio's answer goes to "};
  const std::string how(kHow.at(static_cast<std::size_t>(accepted.answer)));
  if (accepted.answer == Answer::None && !accepted.detail.empty()) {
    return std::string(accepted.detail);
  }
  return how + std::string(accepted.detail);
}

// The comment that stands at a definition, on one line; empty when there is none.
template <class Descriptor>
std::string CommentOf(const Descriptor& descriptor) {
  pb::SourceLocation location;
  if (!descriptor.GetSourceLocation(&location)) {
    return {};
  }
  std::string text = location.leading_comments + location.trailing_comments;
  std::erase(text, '\n');
  text.erase(0, text.find_first_not_of(' '));
  return text;
}

// Makes every part present; of a choice, the one that Kova takes: it answers requests, and takes
// the answers to its own.
void FillIn(pb::Message& message, std::string_view side, int depth) {
  const pb::Descriptor& type = *message.GetDescriptor();
  for (int i = 0; i < type.field_count() && depth < kMaxDepth; ++i) {
    const pb::FieldDescriptor& field = *type.field(i);
    const auto* const choice = field.real_containing_oneof();
    const bool wanted = choice == nullptr || (field.name().ends_with(side) &&
                                              !message.GetReflection()->HasOneof(message, choice));
    if (field.message_type() != nullptr && !field.is_repeated() && wanted) {
      FillIn(*message.GetReflection()->MutableMessage(&message, &field), side, depth + 1);
    }
  }
}

std::string ExampleOf(MessageValue message, const AcceptedType& accepted) {
  const bool answered = accepted.answer == Answer::Response || accepted.answer == Answer::Message;
  FillIn(message.Get(), accepted.answer == Answer::None ? "response" : "request", 0);
  return std::string(answered ? "zeltcli request Kova " : "zeltcli send Kova ") + message.Type() +
         " '" + message.Json() + "'";
}

void PrintFields(std::ostream& text, const pb::Descriptor& type, const Output& output, int depth) {
  const std::string indent(static_cast<std::size_t>(depth) * 2, ' ');
  for (int i = 0; i < type.field_count(); ++i) {
    const pb::FieldDescriptor& field = *type.field(i);
    text << '\n'
         << indent << output.Paint(Output::Style::Bold, field.name()) << ": " << KindOf(field);
    if (const auto* const choice = field.real_containing_oneof()) {
      text << output.Paint(Output::Style::Dim, " (one of " + choice->name() + ")");
    }
    if (const std::string comment = CommentOf(field); !comment.empty()) {
      text << output.Paint(Output::Style::Dim, "  // " + comment);
    }
    if (field.message_type() != nullptr && depth < kMaxDepth) {
      PrintFields(text, *field.message_type(), output, depth + 1);
    }
  }
}

std::string FieldsJson(const pb::Descriptor& type, int depth) {
  std::vector<std::string> fields;
  for (int i = 0; i < type.field_count(); ++i) {
    const pb::FieldDescriptor& field = *type.field(i);
    JsonObject object;
    object.Add("name", field.name())
        .Add("kind", KindOf(field))
        .Add("repeated", field.is_repeated())
        .Add("comment", CommentOf(field));
    if (const auto* const choice = field.real_containing_oneof()) {
      object.Add("oneof", choice->name());
    }
    if (field.message_type() != nullptr && depth < kMaxDepth) {
      object.AddRaw("fields", FieldsJson(*field.message_type(), depth + 1));
    }
    fields.push_back(object.Str());
  }
  return JsonObject::Array(fields);
}

}  // namespace

std::string TypesText(const Output& output) {
  std::ostringstream text;
  text << output.Paint(Output::Style::Bold, "Kova accepts") << " (zeltcli types TYPE shows one)";
  for (const AcceptedType& accepted : kAcceptedByKova) {
    text << "\n  " << std::left << std::setw(40) << accepted.type << ' '
         << output.Paint(Output::Style::Dim, AnswerText(accepted));
  }
  text << '\n'
       << output.Paint(Output::Style::Bold, "Kova publishes") << " (zeltcli subscribe TOPIC)";
  for (const std::string_view topic : kTopicsOfKova) {
    text << "\n  " << topic;
  }
  return text.str();
}

std::string TypesJson(const MessageTypes& types) {
  std::vector<std::string> items;
  for (const std::string& name : types.Names()) {
    items.push_back(TypeJson(types.Find(name)));
  }
  return JsonObject::Array(items);
}

std::string TypeText(const MessageTypes& types, const pb::Descriptor& type, const Output& output) {
  std::ostringstream text;
  text << output.Paint(Output::Style::Bold, type.full_name());
  if (const std::string comment = CommentOf(type); !comment.empty()) {
    text << "\n" << comment;
  }
  const AcceptedType* const accepted = FindAccepted(type.full_name());
  if (accepted != nullptr) {
    text << "\nSent to Kova: " << AnswerText(*accepted) << ".";
  }
  PrintFields(text, type, output, 1);
  if (accepted != nullptr) {
    text << "\nexample: " << ExampleOf(types.New(type.full_name()), *accepted);
  }
  return text.str();
}

std::string TypeJson(const pb::Descriptor& type) {
  JsonObject object;
  const AcceptedType* const accepted = FindAccepted(type.full_name());
  object.Add("name", type.full_name())
      .Add("comment", CommentOf(type))
      .Add("accepted", accepted != nullptr);
  if (accepted != nullptr) {
    object.Add("answer", AnswerText(*accepted));
  }
  return object.AddRaw("fields", FieldsJson(type, 0)).Str();
}

}  // namespace zelt::cli
