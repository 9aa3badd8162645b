#pragma once

#include <functional>

namespace zelt {

// A move-only callable: owns what it captures, so that a message moves through the task queue
// without being copied. Calling an empty one is undefined.
template <class Signature>
using UniqueFunction = std::move_only_function<Signature>;

}  // namespace zelt
