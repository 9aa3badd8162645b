#pragma once

#include <string>

// Returns the table of the protobuf messages that go over the link, and of what stands in them: a
// row for each message and enumeration, sorted.
std::string Bodies();
