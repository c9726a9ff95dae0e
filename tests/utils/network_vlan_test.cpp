// VLANs by the real `ip`, where the kernel has them; network_links_test.cpp has them everywhere, by
// the stand-in.

#include <ztlib/utils/network.h>

#include <tests/support/capture.h>
#include <tests/support/own_network.h>
#include <tests/support/scratch.h>
#include <tests/utils/network_support.h>

#include <gmock/gmock.h>

#include <string>

using namespace zt_test;
using testing::Contains;
using testing::SizeIs;

TEST(RealVlans, AreMadeSavedAndDeleted) {
    in_own_network([] {
        set_up(
            "ip link set lo up\n"
            "ip link add v0 address 02:00:00:00:00:10 type veth peer name v1\n"
            "ip addr add 10.1.2.3/24 dev v0\n");
        if (sh("ip link add link v0 name probe type vlan id 9").status != 0)
            cannot("this kernel makes no VLANs");
        set_up("ip link delete probe");
        SilentStderr silent;
        Wanted<network_interface> wanted{interface_of("lo", {"127.0.0.1/8"}),
                                         interface_of("v0", {"10.1.2.3/24"}),
                                         interface_of("v0.5", {"10.5.0.1/16"}, "v0", 5)};
        network_interfaces_apply(wanted.list());
        EXPECT_THAT(listed_interfaces(), Contains("v0.5@v0 5 02:00:00:00:00:10 10.5.0.1/16"));

        ScratchDirectory scratch;
        const std::string path = scratch / "interfaces";
        network_interfaces_save(path.c_str(), nullptr);
        network_interfaces_destroy();
        EXPECT_THAT(listed_interfaces(), SizeIs(3));
        network_interfaces_apply(Interfaces(network_interfaces_load(path.c_str())).get());
        EXPECT_THAT(listed_interfaces(), Contains("v0.5@v0 5 02:00:00:00:00:10 10.5.0.1/16"));

        Wanted<network_interface> nothing{};
        network_interfaces_apply(nothing.list());
        EXPECT_THAT(listed_interfaces(), SizeIs(3));
    });
}
