/* SPDX-License-Identifier: LGPL-2.1-or-later */
/**
 * @file network.h
 * The network interfaces (nodes) of service `com.brisemont.Network.Host1`, with their LLDP neighbors, and the host
 * name of service `com.brisemont.Network1`.
 *
 * A node is addressed by its name, as bnetwork_nodes_list_get() gives it. What it has are properties, addressed by
 * keys. LLDP is the Link Layer Discovery Protocol of the public standard IEEE 802.1AB: a neighbor announces who it is
 * and which of its ports is at the other end of the link.
 *
 * | Key                              | Type | Field of bnetwork_node |
 * |----------------------------------|------|------------------------|
 * | "Status.LLDPEnabled"             | "b"  | `lldp_enabled`         |
 * | "Status.LLDPSupport"             | "b"  | `lldp_support`         |
 * | "Status.LinkStatus"              | "b"  | `link_status`          |
 * | "IDs.PciDeviceId"                | "q"  | `pci_device_id`        |
 * | "IDs.PciSubId"                   | "q"  | `pci_sub_id`           |
 * | "IDs.PciSubVendorId"             | "q"  | `pci_sub_vendor_id`    |
 * | "IDs.PciVendorId"                | "q"  | `pci_vendor_id`        |
 * | "LLDP.Neighbor.TTL"              | "q"  | `ttl`                  |
 * | "LLDP.Neighbor.ChassisIdSubtype" | "y"  | `chassis_id_subtype`   |
 * | "LLDP.Neighbor.PortIDSubtype"    | "y"  | `port_id_subtype`      |
 * | "LLDP.Neighbor.ChassisID"        | "s"  | `chassis_id`           |
 * | "LLDP.Neighbor.PortID"           | "s"  | `port_id`              |
 * | "LLDP.Neighbor.SysName"          | "s"  | `sys_name`             |
 * | "LLDP.Neighbor.PortDescr"        | "s"  | `port_descr`           |
 * | "LLDP.Neighbor.SysDescr"         | "s"  | `sys_descr`            |
 *
 * Nothing is cached: every read asks the service, on a connection to the bus of its own; so the next call after a
 * restart of the bus works again. A read waits up to 25 s for its answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says, and before that up to 90 s for a bus that takes the connection and says nothing. What a neighbor announces is
 * handed on as it came; who prints it must expect anything in it.
 *
 * Results: 0 or one of the codes below, always positive. Nothing is printed. A null pointer where one is required gives
 * 0x1000 | EINVAL, with nothing sent.
 *
 * Signals: while a call waits, SIGCHLD, SIGWINCH, SIGIO, SIGURG, SIGPROF and SIGVTALRM are held back in its thread, and
 * their handlers run right after it. Any other signal whose handler runs in that thread (SIGALRM, SIGUSR1, SIGTERM,
 * ...), with SA_RESTART or without, ends the call with 0x1000 | EINTR, which can serve as a program's own limit on a
 * call (best with a timer that repeats, and not while the call waits for another thread's call); the request has
 * reached the service or not, and the reply is lost.
 *
 * Threads: any thread may call; calls of this family wait for one another, each while it talks to the bus. A thread
 * that is canceled (pthread_cancel) inside a call ends only after it. A forked child may call too, unless another
 * thread was inside a call of this family at the fork.
 */
#ifndef BDBUS_NETWORK_H
#define BDBUS_NETWORK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

#define BDBUS_NETWORK_OK 0                 /**< done */
#define BDBUS_NETWORK_NO_MEMORY 204        /**< no memory for a node record */
#define BDBUS_NETWORK_NO_BUS 205           /**< no connection to the system bus; the next call tries again */
#define BDBUS_NETWORK_ERRNO 0x1000         /**< bitwise-ORed with the errno of the step that failed, such as EINTR */
#define BDBUS_NETWORK_NO_LIST 0x1001       /**< of the list: the service's XML cannot be parsed, or no memory */
#define BDBUS_NETWORK_BAD_SIGNATURE 0x1016 /**< no such type of property: 0x1000 | EINVAL */

/** The room of a node's name in a list, with the terminating NUL. */
#define BDBUS_NETWORK_NAME_BYTES 64

/** The names of the nodes, from bnetwork_nodes_list_get(). */
typedef struct bnetwork_node_list {
    uint32_t count; /**< number of names */
    char (
        *names)[BDBUS_NETWORK_NAME_BYTES]; /**< allocated; the caller frees it with free(). Null when there are none */
} bnetwork_node_list;

/**
 * A node, as bnetwork_node_get() reads it. Texts are terminated and cut to their room. Numbers of less than 32 bits are
 * written to the first bytes of their field, the low-order ones on a little-endian machine, and the other bytes keep
 * what they held: zero the record first.
 */
typedef struct bnetwork_node {
    uint32_t pci_device_id;      /**< 16 bits */
    uint32_t pci_sub_id;         /**< 16 bits; the subsystem's device */
    uint32_t pci_vendor_id;      /**< 16 bits */
    uint32_t pci_sub_vendor_id;  /**< 16 bits; the subsystem's vendor */
    char chassis_id[32];         /**< the neighbor's chassis ID (IEEE 802.1AB, Chassis ID TLV) */
    uint32_t chassis_id_subtype; /**< 8 bits; IEEE 802.1AB, such as 4 for a MAC address */
    char port_id[32];            /**< the neighbor's port ID (IEEE 802.1AB, Port ID TLV) */
    uint32_t port_id_subtype;    /**< 8 bits; IEEE 802.1AB, such as 3 for a MAC address */
    char port_descr[128];        /**< the neighbor's port description (IEEE 802.1AB, Port Description TLV) */
    char sys_name[32];           /**< the neighbor's system name (IEEE 802.1AB, System Name TLV) */
    char sys_descr[128];         /**< the neighbor's system description (IEEE 802.1AB, System Description TLV) */
    uint32_t ttl;                /**< 16 bits; seconds for which the neighbor's announcement holds (Time To Live TLV) */
    uint32_t reserved;           /**< never written */
    uint32_t lldp_enabled;       /**< 1 when LLDP is switched on for the node, else 0 */
    uint32_t lldp_support;       /**< 1 when the node can do LLDP, else 0 */
    uint32_t link_status;        /**< 0 down, 1 up */
} bnetwork_node;

/**
 * List the nodes of the network service, in the order in which its introspection data (D-Bus method Introspect) names
 * them.
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call. Prints nothing.
 *
 * @param list receives the names, each cut to 63 bytes; the caller frees `names` with free(). What it held before is
 * overwritten, not freed. After a failure `count` is 0 and `names` null. Not null.
 * @return BDBUS_NETWORK_OK (0), also when there are none, and with the nodes before the break when the data breaks
 * off; BDBUS_NETWORK_NO_BUS (205); BDBUS_NETWORK_NO_LIST (0x1001) when the data cannot be parsed or memory is short;
 * 0x1000 | EINVAL for a null `list`, with nothing sent; 0x1000 | errno when the service or the bus failed, such as
 * EHOSTUNREACH (no such service), ETIMEDOUT, EACCES, or EINTR when a signal handler ended the call.
 */
int32_t bnetwork_nodes_list_get(bnetwork_node_list *list);

/**
 * Read one property of a node (D-Bus property read). The key "Group.Name" is property Name of the interface
 * `com.brisemont.Network.Group`, where the group may have dots of its own; "Name" is a property of
 * `com.brisemont.Network`. Keys beyond the table of this file may be read, too.
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call. Prints nothing.
 *
 * @param node      the node's name. Not null.
 * @param key       the key, such as "Status.LinkStatus". Not null.
 * @param signature the property's type, "b", "q", "u", "y" or "s"; only the first character counts. Not null.
 * @param out       for "b" an `int32_t *` (receives 0 or 1), for "q" a `uint16_t *`, for "u" a `uint32_t *`, for "y" a
 * `uint8_t *`; for "s" a `char **`, which receives a text that the caller frees with free(). Not null. Untouched after
 * a failure.
 * @return BDBUS_NETWORK_OK (0); BDBUS_NETWORK_NO_BUS (205); BDBUS_NETWORK_BAD_SIGNATURE (0x1016, that is 0x1000 |
 * EINVAL) for any other type, a null pointer and a name that no node or property can have; 0x1000 | EBADR for a node
 * or property that is not there, 0x1000 | ENXIO for one of another type; 0x1000 | errno when the service or the bus
 * failed, such as EHOSTUNREACH (no such service), ETIMEDOUT, EACCES, or EINTR when a signal handler ended the call.
 */
int32_t bnetwork_property_get(const char *node, const char *key, const char *signature, void *out);

/**
 * Read the fifteen properties of bnetwork_node, one after another in the order of this file's table. Each read has its
 * own connection and its own time-out: 25 s, or what the environment's SYSTEMD_BUS_TIMEOUT says. It may wait 90 s more
 * for a bus that hangs. Any thread may call. Prints nothing.
 *
 * A property that cannot be read, also because a signal handler ended that read, leaves its field as it was, and the
 * others are read all the same. So this is 0 for a node that does not exist, or without a bus, too:
 * bnetwork_property_get() tells.
 *
 * @param node the node's name. Not null.
 * @param rec  receives what could be read; zero it first, because fields are written only as far as a property
 * reaches. Null: all is read and nothing delivered.
 * @return BDBUS_NETWORK_OK (0); 0x1000 | EINVAL for a null `node`, with nothing sent; BDBUS_NETWORK_NO_MEMORY (204),
 * for a null `rec` only.
 */
int32_t bnetwork_node_get(const char *node, bnetwork_node *rec);

/**
 * Switch LLDP (IEEE 802.1AB) on or off for a node.
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call. Prints nothing.
 *
 * @param node    the node's name. Not null.
 * @param enabled 1 on, 0 off; sent as it is.
 * @return BDBUS_NETWORK_OK (0); BDBUS_NETWORK_NO_BUS (205); 0x1000 | EINVAL for a null `node`, with nothing sent;
 * 0x1000 | EBADR for a node that is not there; 0x1000 | errno when the service or the bus failed, such as EHOSTUNREACH
 * (no such service), ETIMEDOUT, EACCES, or EINTR when a signal handler ended the call. After EINTR and ETIMEDOUT LLDP
 * may be switched or not.
 */
int32_t bnetwork_node_set_lldp_enabled(const char *node, int32_t enabled);

/**
 * Set the controller's host name, at service `com.brisemont.Network1`.
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call. Prints nothing.
 *
 * @param hostname the name, UTF-8; whether it will do is for the service to say. Not null.
 * @return BDBUS_NETWORK_OK (0); BDBUS_NETWORK_NO_BUS (205); 0x1000 | EINVAL for a null `hostname`, with nothing sent;
 * 0x1000 | errno when the service or the bus failed, such as EHOSTUNREACH (no such service), ETIMEDOUT, EACCES, or
 * EINTR when a signal handler ended the call. After EINTR and ETIMEDOUT the name may be set or not.
 */
int32_t bnetwork1_set_hostname(const char *hostname);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
