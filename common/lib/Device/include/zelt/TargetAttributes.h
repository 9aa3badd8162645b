#pragma once

#include <string>

namespace zelt {

// What this device is. Constant after construction; any thread.
class TargetAttributesIF {
 public:
  virtual ~TargetAttributesIF() = default;

  // Returns the camera model, e.g. "OTTR"; empty when unknown.
  virtual std::string ModelAsString() const = 0;
};

// Read from the target attributes file ("KEY=VALUE" lines; MODEL), a regular file of at most 64
// KiB. One that cannot be read is logged and leaves everything unknown.
class TargetAttributes : public TargetAttributesIF {
 public:
  // Throws std::runtime_error when the file cannot be read and is `required`.
  explicit TargetAttributes(bool required);

  std::string ModelAsString() const override;

 private:
  std::string model_;
};

}  // namespace zelt
