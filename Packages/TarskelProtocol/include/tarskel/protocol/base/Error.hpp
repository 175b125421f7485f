#pragma once

#include <exception>
#include <string>
#include <utility>

namespace tarskel {

// Base of every failure this system throws. `what()` and `description()` are
// the system's own text, meant for people and kept word for word.
// Each error family derives one class from this one.
class Error : public std::exception {
 public:
  explicit Error(std::string description) : description_(std::move(description)) {}

  const char* what() const noexcept override { return description_.c_str(); }
  const std::string& description() const noexcept { return description_; }

 private:
  std::string description_;
};

}  // namespace tarskel
