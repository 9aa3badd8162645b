#pragma once

#include <memory>
#include <string_view>

namespace zelt {

class ConfigReaderIF;

// Builds platform objects by the name of their interface. Any thread.
class InterfaceFactory {
 public:
  // Throws std::runtime_error when `name` is no interface that T can be made for.
  template <class T>
  static std::unique_ptr<T> Create(std::string_view name);
};

template <>
std::unique_ptr<ConfigReaderIF> InterfaceFactory::Create<ConfigReaderIF>(std::string_view name);

}  // namespace zelt
