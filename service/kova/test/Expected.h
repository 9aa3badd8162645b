#pragma once

#include "Trace.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

// Expected traces as text files in the folder "expected".
namespace zelt::test {

inline std::string Replaced(std::string text, const std::string& what, std::string_view by) {
  for (auto at = text.find(what); !what.empty() && at != std::string::npos;
       at = text.find(what, at + by.size())) {
    text.replace(at, what.size(), by);
  }
  return text;
}

// The lines of a trace, the message that led to it called "it", its sender "sender".
inline std::string Text(const Trace& trace, const std::string& it = "",
                        const std::string& sender = "") {
  std::string text;
  for (std::string line : trace) {
    line = Replaced(line, it.empty() ? "" : " " + it, " it");
    line = Replaced(line, sender, "sender");
    line = Replaced(line, " 32778 ", " ");  // the usual category
    line = Replaced(line, "\b\x05", "(8 5)");
    text +=
        "  " + line.substr(0, line.find_last_not_of(' ') + 1) + (line.ends_with("  ") ? "_" : "");
    text += '\n';
  }
  return text;
}

inline std::string ReadExpected(const std::string& name) {
  return (std::ostringstream() << std::ifstream(KOVA_EXPECTED + name).rdbuf()).str();
}

// Compares a text with the one of the file, which KOVA_WRITE_EXPECTED=1 writes anew.
inline void ExpectText(const std::string& name, const std::string& text) {
  if (std::getenv("KOVA_WRITE_EXPECTED") != nullptr) {
    std::ofstream(KOVA_EXPECTED + name) << text;
    FAIL() << "written: " << KOVA_EXPECTED << name;
  }
  EXPECT_EQ(ReadExpected(name), text);
}

}  // namespace zelt::test
