/*
 * Address-book client: names become addresses.
 *
 * The address-book service maps a key to an address entry. Every operation
 * opens its own short connection to the service (a TCP record connection,
 * sys_sd_open kind SYS_SD_TCP with 3 attempts, a 1 s connect time-out and
 * blocking reads), sends one request message and, for a lookup, reads one
 * reply, then closes it again. The service is found at the "host:port" the
 * caller gives, or else in the environment variable PL_LOC_BROK_ADDR. zelhub
 * serves the address book on its hub port.
 *
 * Requests, with their fields in this order:
 *   lookup     0 = "mrv_ab", 10000 = key (p_addrbk_request adds 10046 =
 *              address after the key)
 *   update     0 = "mrv_lb_set_info", 10000 = key, 10046 = address
 *   remove     0 = "mrv_lb_unset_info", 10000 = key
 * A lookup reply carries 10046, the entry's address; a reply that also
 * carries 10003 describes an entry of the second kind, with 32771, 32772,
 * 32773 and 32750 as further texts (see p_addr_get_details_from_addrbk).
 *
 * Every function answers 1 for success and 0 for failure and writes a detail
 * code through its last argument:
 *   2   a required argument is null
 *   3   the lookup's reply carries no address (field 10046): no such key
 *   4   no reply came within the lookup's time-out
 *   7   the lookup could not connect to the service
 *   31  the service closed the connection before it replied
 *   other details come from sys_sd_open/read/write (32 bad address, 33 no
 *   connection), the message functions (a reply that does not parse) and
 *   the allocator.
 * A null detail pointer is allowed: the call then does not report its
 * detail.
 *
 * On purpose, a lookup waits at most 5 seconds for its reply (the
 * environment variable ZEL_ADDRBK_TIMEOUT_MS, in milliseconds, changes that
 * bound), then gives up with detail 4 and closes its connection.
 *
 * No function keeps state between calls; each may be called on any thread,
 * but the ones that read PL_LOC_BROK_ADDR share the platform layer's one
 * environment buffer, so two of them must not run at the same time.
 */
#ifndef ZEL_ADDRBK_H
#define ZEL_ADDRBK_H

#include <stdint.h>
#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Connects `*sd` (which must be null) to the service at `address`
 * ("host:port"). Details as sys_sd_open's; 2 for a null address. */
uint64_t p_addr_connect_to_addrbk(void **sd, sPChar *address, uint32_t *err);
/* Closes the connection and nulls `*sd` (sys_sd_close). */
uint64_t p_addr_discnnct_from_addrbk(void **sd, uint32_t *err);

/* Looks `key` up through the service named by PL_LOC_BROK_ADDR (unset: the
 * connection is refused, detail 7). Each pair is an array of two sPChar; the
 * values written into them are owned copies that the caller frees with
 * pchar_destroy_mem (an empty value is written as null, 0). On success:
 *   pair2[0] = the address (10046);
 *   `*kind` = 2 when the reply carries 10003, and then pair1[0] = 10003 and,
 *   where the reply carries them, pair1[1] = 32771, pair2[1] = 32772,
 *   pair3[1] = 32773; otherwise `*kind` = 1 and those stay as they were;
 *   pair3[0] = 32750, or (null, 0) when the reply lacks it.
 * `pair1`, `pair3` and `kind` may be null: nothing is written there then.
 * A null key or pair2: detail 2. Nothing is written into the pairs when
 * the lookup fails. */
uint64_t p_addr_get_details_from_addrbk(sPChar *key, sPChar *pair1, sPChar *pair2, sPChar *pair3, uint32_t *kind,
                                        uint32_t *err);
/* The same lookup for the address alone: pair2[0] = the address. */
uint32_t p_addr_local_addrbk_lookup(sPChar *key, sPChar *pair2, uint32_t *err);

/* Stores `address` under `key` at the service in `service` ("host:port"; a
 * holder whose data is null is first pointed at PL_LOC_BROK_ADDR's value,
 * in the shared environment buffer). Connects, sends, closes: no reply is
 * awaited. A null key, service or address: detail 2. The unused arguments
 * are ignored. */
uint64_t p_addr_update_addrbk(sPChar *key, void *unused1, sPChar *service, sPChar *address, void *unused2,
                              uint32_t *err);
/* Removes `key` at the service, as p_addr_update_addrbk stores it. A
 * failed send is not reported. */
uint64_t p_addr_remove_addrbk(sPChar *key, void *unused, sPChar *service, uint32_t *err);

/* Send one request on an open connection `sd`. A null argument: detail 2. */
uint64_t p_addrbk_request(void *sd, sPChar *address, sPChar *key, uint32_t *err);
uint64_t p_addrbk_update_request(void *sd, sPChar *address, sPChar *key, uint32_t *err);
uint64_t p_addrbk_remove_request(void *sd, sPChar *key, uint32_t *err);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZEL_ADDRBK_H */
