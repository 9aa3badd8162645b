#pragma once

#include "KovaContext.h"

namespace zelt {

// What a handler takes, from its type.
template <class Handler>
struct HandlerSignature;

template <class Result, class T>
struct HandlerSignature<Result (KovaContext::*)(const T&)> {
  using Message = T;
  static constexpr bool kTakesEnvelope = false;
};

template <class Result, class T>
struct HandlerSignature<Result (KovaContext::*)(const KovaContext::MessageEnvelope&, const T&)> {
  using Message = T;
  static constexpr bool kTakesEnvelope = true;
};

}  // namespace zelt
