/*
 * Platform basics: memory, time and its text layouts, environment, the local
 * machine's names and addresses, address text, shell commands and files.
 *
 * Every function answers 1 for success and 0 for failure and writes a detail
 * code through its last argument:
 *   0  success
 *   1  the system refused (allocation, clock, interface list, shell status,
 *      delete, rename)
 *   2  a required handle or buffer is null
 *   3  already open, or no variable name
 *   4  no ':' in an address
 *   5  argument out of range (size not positive, null record, negative time
 *      field, format code outside 1..13, bad destination)
 *   9  a buffer could not be grown or a copy failed
 * A null detail pointer is allowed: the call then does not report its detail.
 * Arguments documented as "ignored" are kept for the call shape.
 */
#ifndef ZEL_PLATFORM_H
#define ZEL_PLATFORM_H

#include <stdint.h>
#include <time.h>
#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Wall-clock time: seconds since 1970-01-01 UTC and microseconds within the
 * second, at millisecond resolution. */
typedef struct sTimeRecord {
    uint32_t sec;
    uint32_t usec;
} sTimeRecord;

/* Layouts of sys_time_format. Each appends a fixed width (in brackets),
 * padding a shorter text with spaces and cutting a longer one. */
enum {
    SYS_TIME_MMDDYY_DASH = 1,  /* local "MM-DD-YY" [8] */
    SYS_TIME_YYYYMMDD = 2,     /* local "YYYYMMDD" [8] */
    SYS_TIME_MMDDYY = 3,       /* local "MMDDYY" [6] */
    SYS_TIME_LOCALE = 4,       /* local strftime "%c" [24] */
    SYS_TIME_HH_MM_SS = 5,     /* local "HH:MM:SS" [8] */
    SYS_TIME_UTC_HHMMSS = 6,   /* UTC "HHMMSS" [6] */
    SYS_TIME_HHMMSS = 7,       /* local "HHMMSS" [6] */
    SYS_TIME_MICROS = 8,       /* "%06ld" of the microseconds [6] */
    SYS_TIME_SECONDS = 9,      /* "%010ld" of the seconds [10] */
    SYS_TIME_WDAY_MON_DD = 10, /* local "Www Mmm DD" [10] */
    SYS_TIME_YYYY_MM_DD = 11,  /* local "YYYY-MM-DD" [10] */
    SYS_TIME_UTC_YYYYMMDD = 12,/* UTC "YYYYMMDD" [8] */
    SYS_TIME_UTC_FULL = 13     /* UTC "Www Mmm DD HH:MM:SS YYYY" [24] */
};

/* ---- Life cycle (kept for the call shape; they do nothing) ---------------- */
uint64_t sys_init(uint32_t a, uint64_t b, uint64_t c, uint32_t d, uint64_t e, uint32_t *err);
uint64_t sys_uninit(uint32_t *err);
uint64_t zel_mem_open(uint64_t a, uint64_t b, uint32_t *err);
uint64_t mem_close(uint64_t a, uint32_t *err);

/* ---- Memory ---------------------------------------------------------------- */

/* Allocates `count` zero-filled bytes into `*block` and writes `count` to
 * `*size`. count <= 0: detail 5, nothing changed. */
uint64_t sys_mem_alloc(uint64_t ignored, void **block, uint32_t *size, int32_t count, uint32_t *err);

/* Resizes `*block` to `new_size` bytes (the added part is not cleared). On
 * failure `*block` becomes null and the old block is no longer reachable
 * through it (detail 1): keep a copy of the pointer if you need to recover. */
uint64_t sys_mem_realloc(uint64_t ignored, void **block, uint32_t *size, int32_t new_size, uint32_t *err);

/* Frees `*block` and sets it to null. A null block: detail 5. */
uint64_t sys_mem_free(uint64_t ignored, void **block, uint32_t *err);

/* ---- Time ------------------------------------------------------------------ */

uint64_t sys_get_time_of_day(sTimeRecord *t, uint32_t *err);
uint64_t sys_time_get(sTimeRecord *t, uint32_t *sec, uint32_t *usec, uint32_t *err);
/* Negative fields: detail 5, nothing stored. */
uint64_t sys_time_set(sTimeRecord *t, int32_t sec, int32_t usec, uint32_t *err);

/* A time handle is a heap time record; `*handle` must start null (detail 3). */
uint64_t sys_open_time_hndl(sTimeRecord **handle, uint32_t *err);
uint64_t sys_close_time_hndl(sTimeRecord **handle, uint32_t *err);
/* Stores the current time in the handle's record. Null handle: detail 2. */
uint64_t sys_record_time(sTimeRecord *handle, uint32_t *err);

/* Points `*out` at the local broken-down time of `t->sec`. The result lives in
 * a per-thread area that the next conversion on the same thread overwrites. */
uint64_t sys_get_local_time(sTimeRecord *t, struct tm **out, uint32_t *err);

/* Appends `t` in layout `code` (see SYS_TIME_*) at `s->len` and advances
 * `s->len` by the layout's fixed width. Null inputs: detail 2; bad code:
 * detail 5; growth failure: detail 9. */
uint64_t sys_time_format(sTimeRecord *t, scratchcb *s, uint32_t code, uint32_t *err);

/* ---- Environment and names ------------------------------------------------- */

/* Reads an environment variable into the layer's one shared 400-byte buffer
 * and points `out` at it. An unset variable (or one of 400 bytes or more)
 * reads as empty; the result is always 1. The next read overwrites the
 * buffer: copy the value at once. Null name: detail 3. */
uint64_t sys_fetch_env_variable(sPChar *out, const char *name, uint32_t *err);

/* Reads USER into `user`, then HOSTNAME into `host`. Both share the one
 * environment buffer, so afterwards `user` points at the HOSTNAME text with
 * the length of the USER value: copy `user` before you read anything else.
 * Null or identical outputs: detail 5. */
uint64_t sys_get_host_by_name(sPChar *user, sPChar *host, uint32_t *err);

/* ---- Addresses ------------------------------------------------------------- */

/* Copies the IPv4 address text of the last non-loopback interface that has
 * one (its first address that is not 0.0.0.0), with its terminator, into the
 * buffer `*dest` (at least 16 bytes). Nothing is copied when no interface has
 * an address; the result is still 1. Null destination: detail 5. */
uint64_t sys_get_local_address(char **dest, uint32_t *err);

/* Makes `out` an owned copy (free with pchar_destroy_mem) of "A.B.C.D:0" for
 * the first IPv4 address, not 127.0.0.1, of the first non-loopback interface.
 * No such address: result 1, `out` untouched. Copy failure: detail 9. */
uint64_t sys_get_local_address_port(sPChar *out, uint32_t *err);

/* Writes the zero-based position of the first ':' in `addr` to `*pos`.
 * None: detail 4. */
uint64_t sys_addr_parse(sPChar *addr, uint64_t ignored, uint32_t *pos, uint32_t *err);

/* Writes the four bytes of `addr` in memory order as "%d.%d.%d.%d" into
 * `dst->data` (at least 16 bytes; `dst->len` must be positive) and sets
 * `dst->len` to the text's length. An address in network order prints as
 * usual. */
uint64_t sys_addr_convert_from_bin(sPChar *dst, uint32_t addr, uint32_t *err);

/* ---- Commands and files ---------------------------------------------------- */

/* Runs the command through /bin/sh. A non-zero status: detail 1. */
uint64_t sys_system_call(sPChar *command, uint32_t *err);

/* Delete or rename a file; a path needs a positive length (detail 5). Rename
 * replaces an existing destination, as rename(2) does. */
uint64_t sys_file_delete(sPChar *path, uint32_t *err);
uint64_t sys_file_rename(sPChar *old_path, sPChar *new_path, uint32_t *err);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZEL_PLATFORM_H */
