/* The host's IPv4 configuration: read, changed and saved.
 *
 *     ip link list, ip -d link show, ip addr list  ->  interfaces  ->  ip link, ip addr
 *     ip route                                     ->  routes      ->  ip route
 *     /etc/resolv.conf                            <->  resolver
 *
 * The host is read from the output of the `ip` tool of iproute2 and changed by running it. `ip` is
 * looked for along PATH and started directly, never through a shell: a name with a blank, a quote
 * or a semicolon is one word to `ip` and nothing else. Changes need root (CAP_NET_ADMIN).
 *
 * Commands that change interfaces are printed to standard error, one line each, just before they
 * run:
 *
 *     ip addr add 10.1.2.3/24 dev eth0
 *
 * A name is printed as it is, so that its control characters reach standard error.
 *
 * Commands that change routes and those that read are not printed. What `ip` itself says goes to
 * the process's standard error and, for changes, standard output.
 *
 * Lists of interfaces and of routes are arrays of pointers to records, ended by NULL. Array and
 * records are allocated one by one from the malloc family and belong to the caller.
 *
 * All records are packed, and the very same bytes are what saved files hold, integers in the
 * machine's byte order. Where a record is read, a count below 0 is taken as 0 and one above 10 as
 * 10, and a text ends at the latest with its field: a damaged file harms nothing.
 *
 * Thread safety: nothing is shared between calls but ipv4_to_string()'s buffer, and the host. Each
 * function waits for the `ip` processes that it starts; while a change runs, SIGCHLD is blocked in
 * the calling thread. A process that ignores SIGCHLD, or in which another thread waits for any
 * child (in a SIGCHLD handler, say), takes the results of commands away (-1); lists are complete
 * all the same. */
#ifndef ZTLIB_UTILS_NETWORK_H
#define ZTLIB_UTILS_NETWORK_H

#include <stdint.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

enum {
    IPV4_TEXT_SIZE = 32,          /* holds any text of ipv4_to_string_r(), its end included */
    NETWORK_NAME_SIZE = 32,       /* of an interface */
    NETWORK_MAC_SIZE = 128,
    NETWORK_SEARCH_SIZE = 128,
    NETWORK_MAX_LINKS = 32,       /* that network_interfaces_list() lists */
    NETWORK_MAX_ADDRESSES = 10,   /* of an interface */
    NETWORK_MAX_NAMESERVERS = 10
};

typedef struct ipv4_address {
    uint32_t address;    /* a number: 10.1.2.3 is 0x0A010203 */
    uint32_t mask;       /* as ipv4_parse_addr() leaves it; nothing here reads it */
    uint8_t prefix;      /* bits, 0 to 32 */
    uint8_t reserved[8]; /* 0 */
} __attribute__((packed)) ipv4_address;

/* A route through a gateway. The default route's destination is 0.0.0.0/0, its mask 0. Nothing else
 * is known of a route: a host that has one with a metric and is brought to the list that it gave
 * itself may end up with a second one, without. Routes through several gateways ("nexthop via"
 * lines) are not listed. */
typedef struct network_route {
    ipv4_address destination;
    ipv4_address gateway; /* prefix 32 */
} __attribute__((packed)) network_route;

/* A link and its IPv4 addresses. Nothing else is known of either: no state, no broadcast address,
 * scope, label or lifetime, and no peer ("10.5.0.1 peer 10.5.0.2/32" is listed as 10.5.0.1/32). */
typedef struct network_interface {
    char name[NETWORK_NAME_SIZE];
    char link[NETWORK_NAME_SIZE]; /* what `ip` prints behind the '@': a VLAN's parent; "" for none */
    char mac[NETWORK_MAC_SIZE];   /* as `ip` prints it behind "link/ether"; "" for none */
    uint8_t reserved[4];          /* 0 */
    uint32_t vlan_id;             /* 0: not a VLAN */
    ipv4_address addresses[NETWORK_MAX_ADDRESSES];
    int32_t address_count;        /* of addresses */
} __attribute__((packed)) network_interface;

typedef struct network_resolv {
    char search[NETWORK_SEARCH_SIZE]; /* the search line's whole value, "" for none */
    ipv4_address nameservers[NETWORK_MAX_NAMESERVERS]; /* in the file's order */
    int32_t nameserver_count;         /* of nameservers */
} __attribute__((packed)) network_resolv;

/* --- addresses -------------------------------------------------------------------------------- */

/* A zeroed address, to be released with free(); NULL when memory is out. */
ipv4_address *ipv4_address_create(void);

/* Reads a dotted address into *out: alone ("10.1.2.3", prefix 32), with a prefix ("10.1.2.3/24") or
 * with a mask ("10.1.2.3/255.255.255.0"). What stands behind the last '/' is a mask if it is a
 * dotted address; else it is read like atoi() does, so that "24x" is 24, and kept in 8 bits, so
 * that "280" is 24 too.
 *
 * `mask` becomes, for a dotted mask, its four bytes as they stand in network order, and `prefix`
 * the number of its one bits, wherever they are; else all ones shifted left by the prefix modulo
 * 32: for /24 it is 0xFF000000, for /32 and /0 all ones.
 *
 * Returns 0, or
 *     -1  no address, 130 characters or more, or NULL
 *     -2  a prefix above 32
 *     -3  a prefix that reads as 0 but is not exactly "0" ("x", "", "00")
 * Text that is too long, or NULL, leaves *out as it was; else *out is zeroed first and on failure
 * holds what was read by then. */
int ipv4_parse_addr(const char *text, ipv4_address *out);

/* Writes "10.1.2.3/24" when bit 0 of `with_prefix` is set, else "10.1.2.3", cut to `size` bytes
 * with its end. Returns 0. */
int ipv4_to_string_r(const ipv4_address *address, int with_prefix, char *buffer, unsigned size);

/* The same in a static buffer, which the next call overwrites, whatever thread makes it. Returns
 * the buffer; NULL for NULL. */
char *ipv4_to_string(const ipv4_address *address, int with_prefix);

/* 1 when the top `prefix` bits of both numbers agree, or `prefix` is 0; else 0. A prefix above 32
 * counts as 32. */
int ipv4_address_in_network(uint32_t address, uint32_t network, uint32_t prefix);

/* Compares addresses with their prefixes. Returns
 *      0  same address and prefix, or both NULL
 *      1  only `a` is NULL       -1  only `b` is NULL
 *      2  a's prefix is larger   -2  a's prefix is smaller
 *     -3  a's address is larger   3  a's address is smaller (same prefix)
 * The signs of the last two rows go opposite ways. */
int ipv4_compare(const ipv4_address *a, const ipv4_address *b);

/* 0 when destination and gateway are equal, or both routes NULL; 1 when only `a` is NULL; else
 * -1. */
int ipv4_route_cmp(const network_route *a, const network_route *b);

/* --- reading the host ------------------------------------------------------------------------- */

/* The routes through a gateway that `ip route` lists, in its order; those to connected networks are
 * left out, and so is a line whose destination or gateway is no IPv4 address. Without `ip` the list
 * is empty. NULL when the first allocation fails; when a later one fails, the list ends there. A
 * list that cannot grow says so on standard error:
 *
 *     network_routes_list: realloc(): <text of errno> */
network_route **network_routes_list(void);

/* The first 32 links of `ip link list`, in its order, each with its first 10 IPv4 addresses.
 * Without `ip` the list is empty. NULL when memory is out.
 *
 * A link that `ip` prints with an '@' has a parent; the number behind the first "id " in its
 * details is its VLAN id. So a veth pair's ends are each other's `link`, with VLAN id 0, unless its
 * peer is in another network namespace: then "link-netnsid 1" makes 1 its VLAN id. */
network_interface **network_interfaces_list(void);

/* Release a list with its records. NULL is ignored. */
void network_routes_free(network_route **list);
void network_interfaces_free(network_interface **list);

/* --- changing the host, one command at a time --------------------------------------------------
 *
 * Each returns the command's result in the form of system(): 0 for success, else a wait status. A
 * missing `ip` gives exit status 127, one that cannot be run 126; -1 where no process could be made
 * or waited for, and for NULL.
 *
 * Where `iface` is void, it is a network_interface or any text whose first bytes are the name. */

/* ip link add link <link> name <name> type vlan id <vlan_id> */
int _network_interface_create(const network_interface *iface);
/* ip link delete <name> */
int _network_interface_destroy(const void *iface);
/* ip addr flush dev <name> */
int _network_interface_flush(const void *iface);
/* ip addr add <address>/<prefix> dev <name> */
int _network_interface_ip_add(const void *iface, const ipv4_address *address);
/* ip addr del <address>/<prefix> dev <name> */
int _network_interface_ip_del(const void *iface, const ipv4_address *address);
/* ip link set dev <name> up */
int _network_interface_up(const void *iface);
/* ip link set dev <name> down */
int _network_interface_down(const void *iface);
/* ip route add <destination>/<prefix> via <gateway>; not printed */
int _network_route_add(const network_route *route);
/* ip route del <destination>/<prefix> via <gateway>; not printed */
int _network_route_del(const network_route *route);

/* --- changing the host -------------------------------------------------------------------------
 *
 * What the commands below return is not looked at. */

/* The first interface of a list with exactly this name, or NULL. */
network_interface *_network_interface_find(network_interface **list, const char *name);

/* Takes the addresses of every link, the loopback's too. */
void network_interfaces_flush(void);

/* Deletes every link whose vlan_id is not 0. */
void network_interfaces_destroy(void);

/* Deletes every route through a gateway. */
void network_routes_flush(void);

/* Brings the host to these interfaces, in two passes, each over a fresh list of the host's links:
 *
 *   1. every link that is there: one that is desired loses the addresses that are not; one that is
 *      not desired is deleted if it is a VLAN, else it loses all its addresses and stays up. That
 *      goes for the loopback as well.
 *   2. every desired interface, in order: one that is not there is made if it is a VLAN, the
 *      addresses that it lacks are added, and it is set up in any case.
 *
 * A VLAN's parent and id are not compared: one that has the right name stays. NULL changes nothing.
 * Returns 0. */
int network_interfaces_apply(network_interface **desired);

/* Brings the host to these routes through gateways, in two passes, each over a fresh list of those
 * that are there:
 *
 *   1. in the host's order, a route stays only if it is desired at or behind the place, in
 *      `desired`, of the one that stayed before it. The others are deleted; once one was, so are all
 *      behind it.
 *   2. every desired route, in order, is added, unless it equals the last one that the host lists.
 *      Others that are there already are tried too, and `ip` refuses them.
 *
 * So with [A, B] desired and [B, A] there, A is deleted, B stays, and A is added again. NULL, like
 * an empty list, deletes all. Returns 0. */
int network_routes_apply(network_route **desired);

/* --- saved files -------------------------------------------------------------------------------
 *
 * A file is a database of <ztlib/db/filedb_fixed.h> with a key of 4 bytes: the records in the
 * list's order and nothing else, 374 bytes for each interface, 34 for each route. Paths are cut at
 * 511 characters, as there, and failures are logged as there. */

/* Write `list`, or the host's current one where it is NULL, in place of the file, which is removed
 * first or, where that fails, emptied. 0 is returned whatever happens: after a failure or a crash
 * there is no file, or one that lacks records or ends within one. The record at place i, counted
 * from 0, is left out when one before it begins with the 4-byte number i: behind a route to
 * 0.0.0.5, the one at place 5. */
int network_interfaces_save(const char *path, network_interface **list);
int network_routes_save(const char *path, network_route **list);

/* The records of a file, as they are. A missing file gives an empty list, and is made; a damaged
 * one gives the records before the damage. NULL when the first allocation fails, or for NULL; when
 * a later allocation fails, the list ends there. */
network_interface **network_interfaces_load(const char *path);
network_route **network_routes_load(const char *path);

/* --- resolver --------------------------------------------------------------------------------- */

/* Reads /etc/resolv.conf: the last "search" line, cut at 127 characters, and the first 10
 * "nameserver" lines. A name server that is no IPv4 address (an IPv6 one, say) counts, and is
 * 0.0.0.0: saved, it is the line "nameserver 0.0.0.0". The keyword ends at the first space, and all
 * that stands behind it is the value; a tab is part of either. Lines without a space, those that
 * begin with '#', and other keywords are skipped.
 * Returns a record to be released with free(), or NULL when the file does not open (logged as
 * "fopen(): <text of errno>") or memory is out (logged as "calloc(): <text of errno>"). */
network_resolv *network_resolv_load(void);

/* Rewrites /etc/resolv.conf:
 *
 *     # automatically generated from zt lib
 *     search <search>                            (unless it is empty)
 *     nameserver <address>                       (for each)
 *
 * in one write, after the old content was dropped: a crash can leave it empty or incomplete, and so
 * does a full disk, which is not reported. Comments and other keywords are lost.
 * Returns 0, or -1 when it does not open (logged as "fopen(): <text of errno>"), or for NULL. */
int network_resolv_save(const network_resolv *resolv);

ZT_END_DECLS

#endif
