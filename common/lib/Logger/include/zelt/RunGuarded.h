#pragma once

#include "zelt/LogClient.h"

#include <cstdint>
#include <exception>
#include <string>
#include <type_traits>

namespace zelt {

// Runs `function` where no exception may pass: below frames of C, and at the bottom of a thread.
// What it throws becomes one error line, `what` and the cause. True if it ran to its end or, when
// it returns a bool, that one.
template <class Function, class... What>
bool RunGuarded(std::uint32_t category, Function&& function, const What&... what) {
  std::string cause;
  try {
    if constexpr (std::is_same_v<decltype(function()), bool>) {
      return function();
    } else {
      function();
      return true;
    }
  } catch (const std::exception& error) {
    cause = error.what();
  } catch (...) {
    cause = "exception of unknown type";
  }
  if (LogClient::LevelIsEnabled(kLogError)) {
    LogClient line(__FILE__, __func__, __LINE__, kLogError, category);
    (line << ... << what) << ": " << cause;
  }
  return false;
}

}  // namespace zelt
