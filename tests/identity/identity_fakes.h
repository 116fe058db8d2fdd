// The user lookup's sources made of the platform fakes.
#pragma once

#include "identity/terminal_session.h"
#include "tests/fakes/fake_platform.h"

namespace lindqvar::testing {

// The whole fake system with the user lookup's sources made of it, a log that
// keeps its lines and a console reader that ends after two empty polls
// without sleeping.
struct FakeUserLookup : FakePlatform {
  FakeUserLookup() : log(support), system{accounts, registry, console, timings} {
    log.SetHandle(support.log_initialize(u"FA_LINDQ"));
    timings.consoleIdlePolls = 2;
    timings.consoleIdlePollMs = 0;
  }
  CLog log;
  UserLookup system;
};

}  // namespace lindqvar::testing
