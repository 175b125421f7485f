// Every test of a darwin-sim binary ends with no simulated object alive.

#include <gtest/gtest.h>

#include "tarskel/darwinsim/DarwinSim.hpp"

namespace {

class LeakCheck final : public ::testing::EmptyTestEventListener {
  void OnTestEnd(const ::testing::TestInfo&) override {
    for (const std::string& leak : tarskel::darwinsim::leaks()) ADD_FAILURE() << "leaked: " << leak;
  }
};

const bool registered = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new LeakCheck);
  return true;
}();

}  // namespace
