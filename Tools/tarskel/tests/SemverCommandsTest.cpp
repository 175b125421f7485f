#include <gtest/gtest.h>

#include "ToolRunner.hpp"

namespace tarskel::tool::testing {
namespace {

TEST(SemverCommands, ExitCodesAndOutput) {
  expectRuns(R"(
    semver check ^0.2.3 0.2.9 | 0 |  | 0.2.9 satisfies ^0.2.3\n
    semver check ^0.2.3 0.3.0 | 1 |  | 0.3.0 does not satisfy ^0.2.3\n
    semver check ^0.2.3 0.3.0 -q | 1 |  | ''
    semver check ^0.2.3 0.2.4 --json | 0 |  | {"constraint":"^0.2.3","satisfied":true,"version":"0.2.4"}\n
    semver check ^1.2.3-rc.1 1.2.3 | 2 | invalid version constraint: ^1.2.3-rc.1 | ''
    semver compare 1.0.0-rc.10 1.0.0-rc.9 | 0 |  | <\n
    semver compare 1.0.0 1.0.0-rc --json | 0 |  | {"a":"1.0.0","b":"1.0.0-rc","order":">"}\n
    semver compare 1.2.3 v1.2.3 | 2 | invalid version: v1.2.3 | ''
  )");
}

}  // namespace
}  // namespace tarskel::tool::testing
