// Linked into a test executable, this moves it into a network namespace of its own with loopback
// up, so that fixed ports never collide with another test or a running server.

#include <gtest/gtest.h>

#include "tests/support/net_namespace.h"

namespace {

class LoopbackEnvironment : public testing::Environment {
  public:
    void SetUp() override {
        static const NetNamespace network;
        ip("link set lo up");
    }
};

testing::Environment* const registered = testing::AddGlobalTestEnvironment(new LoopbackEnvironment);

}  // namespace
