#pragma once

#include <string>

// Returns the table of the protobuf messages that go over the link, and of what stands in them: a
// row for each message and enumeration, sorted.
std::string Bodies();

// Returns a text of these messages, by name and field numbers, that the codec's list of texts does
// not have, or has for nothing; empty when there is none.
std::string TextThatDiffers();
