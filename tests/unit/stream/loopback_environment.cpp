// Linked into a test executable, this moves it into a private network, so that fixed ports never
// collide with another test or a running server.

#include <gtest/gtest.h>

#include "tests/support/net_namespace.h"

namespace {

class LoopbackEnvironment : public testing::Environment {
  public:
    void SetUp() override { static const LoopbackNetwork network; }
};

testing::Environment* const registered = testing::AddGlobalTestEnvironment(new LoopbackEnvironment);

}  // namespace
