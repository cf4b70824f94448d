#include "web/local_addresses.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/net_namespace.h"

namespace {

using testing::ElementsAre;

class LocalAddresses : public testing::Test {
  private:
    const NetNamespace network_;
};

TEST_F(LocalAddresses, WithoutANetworkTheLoopbackAddressIsNamed) {
    EXPECT_THAT(vxweb::webAddresses("::", 59080, false), ElementsAre("http://127.0.0.1:59080/"));
}

TEST_F(LocalAddresses, AddressesOfInterfacesThatLeadOutAreNamedIpv4First) {
    ip("link add here type veth peer name there");
    ip("link set here up");
    ip("address add 192.168.1.20/24 dev here");
    ip("address add 2001:db8::20/64 dev here nodad");
    EXPECT_THAT(vxweb::webAddresses("::", 59080, false),
                ElementsAre("http://192.168.1.20:59080/", "http://[2001:db8::20]:59080/"));
    EXPECT_THAT(vxweb::webAddresses("0.0.0.0", 443, true),
                ElementsAre("https://192.168.1.20:443/"));
}

TEST_F(LocalAddresses, AnAddressToListenAtIsTheOnlyOne) {
    EXPECT_THAT(vxweb::webAddresses("::1", 80, false), ElementsAre("http://[::1]:80/"));
    EXPECT_THAT(vxweb::webAddresses("10.0.0.1", 80, false), ElementsAre("http://10.0.0.1:80/"));
}

}  // namespace
