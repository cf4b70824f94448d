#pragma once

#include <gtest/gtest.h>

#include "tests/support/net_namespace.h"

/// A test in a network of its own: a loopback interface, which queries for servers go to.
class LoopbackTest : public testing::Test {
  protected:
    LoopbackTest() {
        ip("link set lo up");
        ip("route add 231.232.233.235/32 dev lo");
    }

  private:
    const NetNamespace network_;
};
