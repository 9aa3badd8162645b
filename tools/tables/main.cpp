// Writes the tables of docs/radio-link.md, each between its two markers, from those of the code.
//
//   tables FILE            writes them anew
//   tables --check FILE    changes nothing; fails when they differ
//
// Either fails when the codec's list of texts is not that of the definitions.

#include "Bodies.h"

#include "orka/ConversionTables.h"
#include "orka/codec/MessageTable.h"

#include <algorithm>
#include <array>
#include <expected>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using orka::codec::Body;
using orka::codec::Direction;
using orka::codec::MessageRow;

std::string Hex(unsigned value, int digits) {
  std::ostringstream text;
  text << "0x" << std::hex << std::uppercase << std::setw(digits) << std::setfill('0') << value;
  return text.str();
}

std::string BodyText(const MessageRow& row) {
  std::string type(row.type);
  switch (row.body) {
    case Body::Raw:
      return "none";
    case Body::Record:
      return "record " + type.substr(type.rfind(':') + 1);
    default:
      return type.replace(type.find("::"), 2, ".");
  }
}

std::string Messages(Direction direction) {
  static constexpr std::array<std::string_view, 3> kKinds = {"request", "response", "broadcast"};
  std::ostringstream table;
  table << "| Opcode | Kind | Name | Body | "
        << (direction == Direction::ToRadio ? "Case" : "Notification")
        << " |\n|---|---|---|---|---|\n";
  for (const MessageRow& row : orka::codec::kMessageTable) {
    if (row.direction != direction) {
      continue;
    }
    table << "| " << Hex(row.opcode, 4) << " | " << kKinds.at(static_cast<std::size_t>(row.kind))
          << " | " << row.name << " | " << BodyText(row) << " | ";
    if (direction == Direction::FromRadio) {
      table << static_cast<std::uint32_t>(row.notify) << ' ';
    } else if (row.message_case != 0) {
      table << unsigned{row.message_case} << ' ';
    }
    table << "|\n";
  }
  return table.str();
}

// A code of the radio: the name that services see, its number if it has one, what is on the link.
struct Code {
  int number = -1;
  unsigned code = 0;
  std::string name;
};

std::string Codes(std::vector<Code> codes, int hex_digits) {
  std::ranges::sort(codes, {}, [](const Code& code) { return std::pair(code.number, code.code); });
  const bool numbered = codes.front().number >= 0;
  std::ostringstream table;
  table << (numbered ? "| Name | Number | On the link |\n|---|---|---|\n"
                     : "| Name | On the link |\n|---|---|\n");
  for (const Code& code : codes) {
    table << "| " << code.name << " | ";
    if (numbered) {
      table << code.number << " | ";
    }
    table << (hex_digits > 0 ? Hex(code.code, hex_digits) : std::to_string(code.code)) << " |\n";
  }
  return table.str();
}

template <class Map, class MakeCode>
std::vector<Code> CodesOf(const Map& map, MakeCode make_code) {
  std::vector<Code> codes;
  std::ranges::transform(map, std::back_inserter(codes), make_code);
  return codes;
}

Code ByName(const auto& entry) {
  return {.code = static_cast<unsigned>(entry.second), .name = entry.first};
}

// The tables by the names in their markers.
std::vector<std::pair<std::string_view, std::string>> Tables() {
  return {
      {"to the radio", Messages(Direction::ToRadio)},
      {"from the radio", Messages(Direction::FromRadio)},
      {"subscriptions", Codes(CodesOf(orka::kSubscriptionOpcodes,
                                      [](const auto& entry) -> Code {
                                        return {entry.first, static_cast<unsigned>(entry.second),
                                                Kova::SubscriptionMsgCode_Name(entry.first)};
                                      }),
                              4)},
      {"GATT properties", Codes(CodesOf(orka::kGattDescriptorCodes,
                                        [](const auto& entry) -> Code {
                                          return {entry.first, static_cast<unsigned>(entry.second),
                                                  Kova::GattConfigPropertyName_Name(entry.first)};
                                        }),
                                0)},
      {"buttons",
       Codes(CodesOf(orka::kButtonIdentifiers, [](const auto& entry) { return ByName(entry); }),
             0)},
      {"brightness",
       Codes(CodesOf(orka::kBrightnessIntensities, [](const auto& entry) { return ByName(entry); }),
             0)},
      {"attributes", Codes(CodesOf(orka::kAttributeIds,
                                   [](const auto& entry) -> Code {
                                     return {entry.second, entry.first,
                                             Collaboration::AttributeID_Name(entry.second)};
                                   }),
                           2)},
      {"bodies", Bodies()},
  };
}

// Returns a document with its tables written anew, or the marker that is missing.
std::expected<std::string, std::string> Rewrite(std::string document) {
  for (const auto& [name, table] : Tables()) {
    const std::string begin = "<!-- table: " + std::string(name) + " -->\n";
    const std::size_t from = document.find(begin);
    const std::size_t to = document.find("<!-- end -->", from);
    if (from == std::string::npos || to == std::string::npos) {
      return std::unexpected("no table \"" + std::string(name) + '"');
    }
    document.replace(from + begin.size(), to - from - begin.size(), "\n" + table + "\n");
  }
  return document;
}

}  // namespace

int main(int argc, char** argv) {
  const std::span arguments(argv, static_cast<std::size_t>(argc));
  const bool check = argc == 3 && std::string_view(arguments[1]) == "--check";
  if (argc != 2 && !check) {
    std::cerr << "usage: tables [--check] FILE\n";
    return 2;
  }
  if (const std::string text = TextThatDiffers(); !text.empty()) {
    std::cerr << "codec/Texts.h: kTextFields differs from the definitions in " << text << '\n';
    return 1;
  }
  const std::string path = arguments.back();
  const std::string document = (std::ostringstream() << std::ifstream(path).rdbuf()).str();
  const auto written = Rewrite(document);
  if (!written) {
    std::cerr << path << ": " << written.error() << '\n';
    return 1;
  }
  if (*written == document) {
    return 0;
  }
  if (check) {
    const auto [was, is] = std::ranges::mismatch(document, *written);
    std::cerr << path << ':' << 1 + std::count(document.begin(), was, '\n')
              << ": not what the code has; \"scripts/check-docs --write\" mends it\n";
    return 1;
  }
  return (std::ofstream(path) << *written).flush() ? 0 : 1;
}
