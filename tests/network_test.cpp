// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/capture.hpp"
#include "support/simulator.hpp"
#include "support/timeout.hpp"

#include <bdbus/network.h>

#include <sys/resource.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <set>
#include <thread>

using strings = std::vector<std::string>;

/** Whatever a test does, the family prints nothing. */
class network : public controller_test
{
protected:
    void TearDown() override { EXPECT_EQ(said_.text(), ""); }

private:
    stderr_capture said_;
};

/** All calls of all services since the last look: who was asked, how, where, for what, with which arguments. */
static strings take_calls()
{
    strings taken;
    for (const json &call : simulator::calls("")) {
        std::string text;
        for (const char *part : {"service", "kind", "path", "interface", "member", "signature"}) {
            text += call[part].get<std::string>() + " ";
        }
        taken.push_back(text + call["args"].dump());
    }
    simulator::clear_calls();
    return taken;
}

static void set_node(const std::string &node, const json &groups)
{
    simulator::set({{"network", {{"nodes", {{node, groups}}}}}});
}

static void answer(const char *member, const char *signature, const json &values)
{
    simulator::answer("Network.Host1", member, signature, values);
}

/** The nodes that the service's answer makes; the list holds rubbish before. */
static int32_t list_nodes(strings &names)
{
    bnetwork_node_list list;
    memset(&list, 0xEE, sizeof(list));
    const int32_t status = bnetwork_nodes_list_get(&list);
    EXPECT_EQ(list.names == nullptr, list.count == 0);
    names.assign(list.names, list.names + list.count);
    free(list.names);
    return status;
}

static int32_t list_nodes_in(const std::string &xml, strings &names)
{
    answer("Introspect", "s", {xml});
    return list_nodes(names);
}

TEST_F(network, sends_every_call_field_by_field_and_nothing_more)
{
    strings names;
    EXPECT_EQ(list_nodes(names), 0);
    EXPECT_EQ(names, (strings{"eth0", "eth1", "eth2", "usb0"}));
    EXPECT_EQ(bnetwork_node_set_lldp_enabled("usb0", -7), 0);
    EXPECT_EQ(bnetwork1_set_hostname("lab \xC3\xBC"), 0);
    uint32_t number = 0;
    answer("TTL", "u", {0x89ABCDEF});
    EXPECT_EQ(bnetwork_property_get("eth0", "LLDP.Neighbor.TTL", "u", &number), 0);
    EXPECT_EQ(number, 0x89ABCDEF);
    EXPECT_EQ(bnetwork_property_get("eth0", "Speed", "u", &number), 0x1000 | EBADR);
    EXPECT_EQ(take_calls(),
              (strings{
                  "Network.Host1 call /com/brisemont/network org.freedesktop.DBus.Introspectable Introspect  []",
                  "Network.Host1 call /com/brisemont/network/usb0 com.brisemont.Network.Status SetLLDPEnabled i [-7]",
                  "Network1 call /com/brisemont/Network1 com.brisemont.Network1 SetHostname s [\"lab \xC3\xBC\"]",
                  "Network.Host1 get /com/brisemont/network/eth0 com.brisemont.Network.LLDP.Neighbor TTL  []",
                  "Network.Host1 get /com/brisemont/network/eth0 com.brisemont.Network Speed  []",
              }));
}

TEST_F(network, reads_a_node_key_by_key_each_on_a_connection_of_its_own)
{
    bnetwork_node node;
    memset(&node, 0xEE, sizeof(node));
    set_node("eth0", {{"Status", {{"LLDPEnabled", false}}},
                      {"IDs", {{"PciDeviceId", 1}, {"PciSubId", 2}, {"PciSubVendorId", 3}, {"PciVendorId", 0xFFFF}}}});
    take_calls();
    EXPECT_EQ(bnetwork_node_get("eth0", &node), 0);
    std::set<std::string> senders;
    for (const json &call : simulator::calls("Network.Host1")) {
        senders.insert(call["sender"]);
    }
    EXPECT_EQ(senders.size(), 15U);
    strings expected;
    for (const std::string key :
         {"Status LLDPEnabled", "Status LLDPSupport", "Status LinkStatus", "IDs PciDeviceId", "IDs PciSubId",
          "IDs PciSubVendorId", "IDs PciVendorId", "LLDP.Neighbor TTL", "LLDP.Neighbor ChassisIdSubtype",
          "LLDP.Neighbor PortIDSubtype", "LLDP.Neighbor ChassisID", "LLDP.Neighbor PortID", "LLDP.Neighbor SysName",
          "LLDP.Neighbor PortDescr", "LLDP.Neighbor SysDescr"}) {
        expected.push_back("Network.Host1 get /com/brisemont/network/eth0 com.brisemont.Network." + key + "  []");
    }
    EXPECT_EQ(take_calls(), expected);

    EXPECT_EQ(json({node.lldp_enabled, node.lldp_support, node.link_status}), json({0, 1, 1}));
    EXPECT_EQ(json({node.pci_device_id, node.pci_sub_id, node.pci_sub_vendor_id, node.pci_vendor_id, node.ttl}),
              json({0xEEEE0001, 0xEEEE0002, 0xEEEE0003, 0xEEEEFFFF, 0xEEEE0078}));
    EXPECT_EQ(json({node.chassis_id_subtype, node.port_id_subtype}), json({0xEEEEEE04, 0xEEEEEE05}));
    EXPECT_EQ(node.reserved, 0xEEEEEEEE);
    const json neighbor = simulator::state()["network"]["nodes"]["eth0"]["LLDP.Neighbor"];
    EXPECT_EQ(json({node.chassis_id, node.port_id, node.sys_name, node.port_descr, node.sys_descr}),
              json({neighbor["ChassisID"], neighbor["PortID"], neighbor["SysName"], neighbor["PortDescr"],
                    neighbor["SysDescr"]}));

    EXPECT_EQ(bnetwork_node_get("eth0", nullptr), 0);
    EXPECT_EQ(take_calls(), expected);
}

TEST_F(network, cuts_texts_to_their_room_and_hands_out_whole_ones_alone)
{
    for (const size_t length : {0U, 31U, 32U, 127U, 128U, 60'000U}) {
        std::string text(length, 'x');
        json neighbor;
        for (const char *name : {"ChassisID", "PortID", "SysName", "PortDescr", "SysDescr"}) {
            neighbor[name] = text;
        }
        set_node("eth0", {{"LLDP.Neighbor", neighbor}});
        bnetwork_node node = {};
        EXPECT_EQ(bnetwork_node_get("eth0", &node), 0);
        for (const char *field : {node.chassis_id, node.port_id, node.sys_name}) {
            EXPECT_EQ(field, text.substr(0, 31));
        }
        EXPECT_EQ(node.port_descr, text.substr(0, 127));
        EXPECT_EQ(node.sys_descr, text.substr(0, 127));
        char *whole = nullptr;
        EXPECT_EQ(bnetwork_property_get("eth0", "LLDP.Neighbor.SysDescr", "string", &whole), 0);
        EXPECT_EQ(whole, text);
        free(whole);
    }
}

TEST_F(network, leaves_the_field_of_a_failed_read_alone_and_reads_on)
{
    bnetwork_node untouched;
    memset(&untouched, 0xEE, sizeof(untouched));
    bnetwork_node node = untouched;
    EXPECT_EQ(bnetwork_node_get("eth9", &node), 0) << "no such node";
    EXPECT_EQ(memcmp(&node, &untouched, sizeof(node)), 0);
    EXPECT_EQ(bnetwork_node_get("eth2", &node), 0) << "no neighbor";
    EXPECT_EQ(node.link_status, 0U);
    EXPECT_EQ(memcmp(node.chassis_id, untouched.chassis_id,
                     offsetof(bnetwork_node, lldp_enabled) - offsetof(bnetwork_node, chassis_id)),
              0);

    node = untouched;
    answer("LLDPSupport", "y", {1});
    answer("PciSubId", "s", {"text"});
    answer("TTL", "u", {7});
    answer("ChassisID", "u", {7});
    answer("PortDescr", "", json::array());
    simulator::fault("Network.Host1", "SysName", simulator::refusal());
    EXPECT_EQ(bnetwork_node_get("eth0", &node), 0);
    EXPECT_EQ(json({node.lldp_support, node.pci_sub_id, node.ttl}), json({0xEEEEEEEE, 0xEEEEEEEE, 0xEEEEEEEE}));
    for (const char *field : {node.chassis_id, node.port_descr, node.sys_name}) {
        EXPECT_EQ(std::string(field, 32), std::string(32, '\xEE'));
    }
    EXPECT_EQ(node.link_status, 1U);
    EXPECT_STREQ(node.port_id, "Ethernet1/12");
    EXPECT_EQ(simulator::calls("Network.Host1").size(), 45U);
}

TEST_F(network, lists_the_named_node_elements_of_any_introspection_data)
{
    const std::string n63(63, 'n');
    const std::pair<std::string, strings> cases[] = {
        {"<node><node name='zz'/><node name=\"eth0\"/><node name='a'></node></node>", {"zz", "eth0", "a"}},
        {"<node name='root'><node name='one'/></node>", {"root", "one"}},
        {"<node><node a='1' name='x' b='2'/><node name2='no' b='name'/><node/></node>", {"x"}},
        {"<node><interface name='i'><method name='m'/></interface><Node name='no'/><nodes name='no'/></node>", {}},
        {"<node><node name='" + n63 + "'/><node name='" + n63 + "x'/><node name='" + n63 +
             "xyz'/><node name=''/></node>",
         {n63, n63, n63, ""}},
        {"<node><node name='a &lt;&#33;'><node name='inner'/></node><!-- <node name='no'/> --></node>",
         {"a <!", "inner"}},
        {"<!DOCTYPE node [<!ENTITY e \"<node name='in'/>\"><!ENTITY v 'al'>]><node>&e;<node name='v&v;'/>&e;</node>",
         {"in", "val", "in"}},
        {"<!DOCTYPE node SYSTEM 'http://localhost/none.dtd'><node><node name='a'/></node>", {"a"}},
        {"<node/>", {}},
        {"", {}},
        {" \n", {}},
        {"<node><node name='whole'/><node name='cut", {"whole"}},
        {"<node><node name='open'>", {"open"}},
    };
    for (const auto &[xml, expected] : cases) {
        strings names;
        EXPECT_EQ(list_nodes_in(xml, names), 0) << xml;
        EXPECT_EQ(names, expected) << xml;
    }
}

TEST_F(network, refuses_what_is_no_introspection_data_and_hands_out_nothing)
{
    for (const char *xml : {"eth0\neth1\n", "<node><node name='a'/></nodes>", "<node name='a'/><node name='b'/>",
                            "<node><node name='a' name='b'/></node>", "<node><node name='a'/>\x01</node>",
                            "<node><node name='a'/>&nothing;</node>", "<?xml version='1.0' encoding='EBCDIC'?><node/>",
                            "<node><node name='a'/></node>more"}) {
        strings names;
        EXPECT_EQ(list_nodes_in(xml, names), 0x1001) << xml;
        EXPECT_EQ(names, strings{});
    }
    const std::pair<json, int32_t> cases[] = {
        {{{"reply", {{"signature", "u"}, {"values", {7}}}}}, 0x1000 | ENXIO},
        {{{"reply", {{"signature", ""}, {"values", json::array()}}}}, 0x1000 | ENXIO},
        {simulator::refusal(), 0x1000 | EACCES},
        {{{"no_reply", true}}, 0x1000 | ETIMEDOUT},
    };
    for (const auto &[action, status] : cases) {
        simulator::fault("Network.Host1", "Introspect", action);
        const auto timeout = status == (0x1000 | ETIMEDOUT) ? std::make_unique<short_timeout>() : nullptr;
        strings names;
        EXPECT_EQ(list_nodes(names), status) << action;
    }
    strings names;
    EXPECT_EQ(list_nodes(names), 0);
    EXPECT_EQ(names.size(), 4U);
}

TEST_F(network, bounds_entities_that_expand_without_end)
{
    std::string entities = "<!ENTITY e0 \"<node name='x'/>\"><!ENTITY v0 'xxxxxxxxxx'>";
    for (int i = 1; i < 12; i++) {
        for (const char kind : {'e', 'v'}) {
            std::string ten;
            for (int j = 0; j < 10; j++) {
                ten += std::string("&") + kind + std::to_string(i - 1) + ";";
            }
            entities += std::string("<!ENTITY ") + kind + std::to_string(i) + " '" + ten + "'>";
        }
    }
    const auto peak_megabytes = [] {
        rusage usage = {};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_maxrss / 1024;
    };
    for (const char *use : {"&e11;", "<node name='&v11;'/>"}) {
        const long before = peak_megabytes();
        const clock_t started = clock();
        strings names;
        EXPECT_EQ(list_nodes_in("<!DOCTYPE node [" + entities + "]><node>" + use + "</node>", names), 0x1001);
        EXPECT_LT(clock() - started, 10 * CLOCKS_PER_SEC);
        EXPECT_LT(peak_megabytes() - before, 200);
    }
}

TEST_F(network, lists_a_million_nodes)
{
    simulator::set({{"network", {{"extra_nodes", 1'000'000}}}});
    bnetwork_node_list list = {};
    EXPECT_EQ(bnetwork_nodes_list_get(&list), 0);
    ASSERT_EQ(list.count, 1'000'004U);
    EXPECT_STREQ(list.names[3], "usb0");
    EXPECT_STREQ(list.names[1'000'003], "veth999999");
    free(list.names);
}

TEST_F(network, refuses_names_keys_and_types_that_cannot_be)
{
    const int32_t refused = 0x1000 | EINVAL;
    uint32_t out = 77;
    const auto get = [&out](const char *node, const char *key, const char *type) {
        return bnetwork_property_get(node, key, type, &out);
    };
    const std::string endless(100'000, 'n');
    for (const char *node :
         {"", "eth0.1", "eth 0", "eth0/", "\xFF", endless.c_str(), static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(get(node, "Status.LinkStatus", "b"), refused);
        EXPECT_EQ(bnetwork_node_set_lldp_enabled(node, 1), refused);
    }
    const std::string too_long = std::string(300, 'k') + ".A";
    for (const char *key :
         {"", ".", ".A", "A.", "A..B", "A.B-C", too_long.c_str(), static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(get("eth0", key, "b"), refused);
    }
    for (const char *type : {"i", "", "x", "v", "as", "B", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(get("eth0", "Status.LinkStatus", type), refused);
    }
    EXPECT_EQ(bnetwork_property_get("eth0", "Status.LinkStatus", "b", nullptr), refused);
    EXPECT_EQ(bnetwork_nodes_list_get(nullptr), refused);
    EXPECT_EQ(bnetwork_node_get(nullptr, nullptr), refused);
    EXPECT_EQ(bnetwork1_set_hostname("\xFF"), refused);
    EXPECT_EQ(bnetwork1_set_hostname(nullptr), refused);
    EXPECT_EQ(out, 77U);
    EXPECT_EQ(take_calls(), strings{});
}

TEST_F(network, fails_without_a_bus_or_a_service_and_works_again_after)
{
    uint32_t out = 77;
    strings names;
    const auto expect_everywhere = [&](int32_t status) {
        EXPECT_EQ(list_nodes(names), status);
        EXPECT_EQ(bnetwork_property_get("eth0", "Status.LinkStatus", "b", &out), status);
        EXPECT_EQ(bnetwork_node_set_lldp_enabled("eth0", 0), status);
        EXPECT_EQ(bnetwork1_set_hostname("x"), status);
    };
    without_bus([&] {
        expect_everywhere(205);
        EXPECT_EQ(bnetwork_property_get("eth0", "Status.LinkStatus", "i", &out), 205);
        bnetwork_node node = {};
        EXPECT_EQ(bnetwork_node_get("eth0", &node), 0);
        EXPECT_EQ(node.link_status, 0U);
    });
    simulator::stop("Network.Host1");
    simulator::stop("Network1");
    expect_everywhere(0x1000 | EHOSTUNREACH);
    EXPECT_EQ(out, 77U);
    simulator::reset();
    expect_everywhere(0);
    EXPECT_EQ(out, 1U);
}

TEST_F(network, keeps_no_descriptor_and_serves_many_threads)
{
    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = descriptors();
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([] {
            for (int j = 0; j < 25; j++) {
                strings names;
                uint8_t subtype = 0;
                char *text = nullptr;
                EXPECT_EQ(list_nodes(names), 0);
                EXPECT_EQ(bnetwork_property_get("eth1", "LLDP.Neighbor.PortIDSubtype", "y", &subtype), 0);
                EXPECT_EQ(bnetwork_property_get("eth9", "LLDP.Neighbor.SysName", "s", &text), 0x1000 | EBADR);
                EXPECT_EQ(bnetwork_property_get("eth0", "Status.LinkStatus", "i", &text), 0x1016);
                EXPECT_EQ(bnetwork_node_set_lldp_enabled("eth0", 1), 0);
                EXPECT_EQ(json({names.size(), subtype, text == nullptr}), json({4, 3, true}));
            }
        });
    }
    threads.clear(); // joins them
    EXPECT_EQ(descriptors(), before);
}
