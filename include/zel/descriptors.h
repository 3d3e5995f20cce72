/*
 * Descriptors of the platform layer: record-oriented files, pipes, timers,
 * external OS descriptors, event placeholders, and sockets that carry whole
 * records.
 *
 * Conventions as in platform.h: the result is 1 for success and 0 for failure
 * (the file read and write calls answer byte counts instead) and a detail code
 * is written through the last argument:
 *   0  success
 *   1  the system refused (open, short read, close)
 *   2  a null or wrong-type argument; a write that wrote nothing
 *   3  the caller's handle is already open
 *   4  nothing was read
 *   5  a bad access mode, record format or value
 *   9  a buffer could not be grown or a copy failed
 * Sockets add:
 *  31  the peer closed the connection
 *  32  the address cannot be resolved ("host:port" expected)
 *  33  the connection was refused or timed out
 * A null detail pointer is allowed: the call then does not report its detail.
 * A descriptor is used by one thread at a time; nothing here locks.
 */
#ifndef ZEL_DESCRIPTORS_H
#define ZEL_DESCRIPTORS_H

#include <stdint.h>
#include <stdio.h>
#include "platform.h"
#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Files ----------------------------------------------------------------- */

enum {
    SYS_FD_READ = 1,          /* read only */
    SYS_FD_WRITE = 2,         /* write; created, emptied */
    SYS_FD_APPEND = 3,        /* write; created, appended to */
    SYS_FD_READ_WRITE = 4     /* read and write; created */
};

enum {
    SYS_FD_TEXT = 1,          /* lines: a write adds "\n"; a read returns one line */
    SYS_FD_RECORDS = 2,       /* each record preceded by its 4-byte native-order length */
    SYS_FD_RAW = 3,           /* bytes as they are; a read returns the rest of the file */
    SYS_FD_WHOLE = 4          /* as raw; an empty write is refused */
};

typedef struct sFdOpenRequest {
    sPChar path;              /* shorter than 1024 bytes */
    uint32_t access;          /* SYS_FD_READ .. SYS_FD_READ_WRITE */
    uint32_t format;          /* SYS_FD_TEXT .. SYS_FD_WHOLE */
    uint32_t extra1, extra2;  /* carried, not interpreted */
} sFdOpenRequest;

typedef struct sFileDescriptor {
    int32_t os_fd;
    uint32_t access;
    uint32_t format;
    FILE *text;               /* read-only text files only */
    scratchcb read_ahead;     /* bytes read but not yet handed out */
    sPChar path;              /* owned copy */
    uint32_t records_read, read_calls, records_written, write_calls, bytes_read, bytes_written;
} sFileDescriptor;

/* Opens (created with permission 0600 where the mode creates) into `*handle`,
 * which must be null (detail 3). A null request: detail 2; an access mode or
 * record format outside the enums, or a path of 1024 bytes or more: detail 5;
 * a file the system will not open (an empty path included): detail 1; out of
 * memory: detail 9. The OS handle is not inherited by commands the process
 * runs. */
uint64_t sys_fd_open(sFileDescriptor **handle, sFdOpenRequest *req, uint32_t *err);
/* Reads one record (one line of a text file; the rest of a raw or whole
 * file) into `dst`, replacing its content. Answers the bytes delivered: 0 at
 * the end of the file (detail 0) or on failure (detail 1 for a short record
 * or a refused read, 5 for a record length above 64 MiB, 9 when `dst` cannot
 * grow).
 * Text lines (read-only text files only; other access modes: detail 5) come
 * without their newline and with a NUL after them. The newline and the blanks
 * that follow it are consumed, so a next line's indentation is not
 * delivered; a further newline is not, so an empty or blank line reads as
 * the end of the file, at this read and every later one. A line of 1 MiB
 * (1048576 bytes) or longer is refused with detail 9 and skipped: the next
 * read delivers the line after it.
 * Meters: one read call per line, per length, per record's bytes and per
 * system read of a raw or whole file; one record per line, per
 * length-prefixed record, and per non-empty rest of a raw or whole file. */
uint64_t sys_fd_read(sFileDescriptor *fd, uint64_t ignored, scratchcb *dst, uint32_t *err);
/* Length-prefixed files only (else detail 5): makes one system read (one
 * read call) and appends the bytes of every whole record now held to `dst`,
 * without their lengths; a partial record waits for the next call, whatever
 * its size. Answers 1 when `dst` received bytes, else 0 with detail 0; 0
 * with detail 4 when the file had nothing more. A record length above 64 MiB
 * is detail 5. May be mixed with sys_fd_read: that takes the bytes held
 * first. */
uint64_t sys_fd_read_buffer(sFileDescriptor *fd, uint64_t ignored, scratchcb *dst, uint32_t *err);
/* Writes `src` as one record; answers the byte count of the last write call
 * (1 for a text line, whose "\n" comes last). Each part (length, bytes,
 * newline) is one write call, written whole. An empty record is refused
 * before anything is written (detail 2; detail 5 for a whole file), as is a
 * length-prefixed record above 64 MiB (detail 5); a write the system refuses
 * is detail 2. */
uint64_t sys_fd_write(sFileDescriptor *fd, uint64_t ignored, scratchcb *src, uint32_t *err);
/* Closes the file, frees the descriptor and nulls `*handle`. Detail 1 (or 9)
 * when the system reported an error; the descriptor is gone all the same. */
uint64_t sys_fd_close(sFileDescriptor **handle, uint32_t *err);

/* ---- Pipes (made by the layer that owns the transfer routine) -------------- */

struct sPipeDescriptor;
typedef uint64_t (*sys_pd_transfer)(struct sPipeDescriptor *pd, uint64_t a, uint64_t b, uint32_t *err);

typedef struct sPipeDescriptor {
    uint32_t kind;            /* 6: no buffer */
    int32_t reserved;
    int32_t os_fd;
    uint32_t direction;       /* 1 read, 2 write */
    scratchcb buffer;
    sys_pd_transfer transfer;
} sPipeDescriptor;

/* Call the record's transfer routine with `a` and `b` when the direction
 * matches (else detail 5; a null record or routine: detail 2) and answer its
 * result; on success the detail is 0, on failure the routine's. */
uint64_t sys_pd_read(sPipeDescriptor *pd, uint64_t a, uint64_t b, uint32_t *err);
uint64_t sys_pd_write(sPipeDescriptor *pd, uint64_t a, uint64_t b, uint32_t *err);
uint64_t sys_pd_get_fd(sPipeDescriptor *pd, uint32_t *out, uint32_t *err);
uint64_t sys_pd_get_type(sPipeDescriptor *pd, uint32_t *out, uint32_t *err);
/* Releases the buffer (unless the kind is 6), closes the OS descriptor, frees
 * the record (allocated with sys_mem_alloc) and nulls `*pd`. Detail 1 when
 * the close failed; the record is freed all the same. */
uint64_t sys_pd_close(sPipeDescriptor **pd, uint32_t *err);

/* ---- Timers ------------------------------------------------------------------ */

typedef struct sTimerRecord {
    uint32_t sec;             /* whole seconds of the interval */
    uint32_t usec;            /* and its microseconds */
    double interval;          /* seconds */
    uint32_t expiries;
    sTimeRecord start;        /* taken at open */
    sTimeRecord second;
} sTimerRecord;

typedef struct sTimerDescriptor {
    sTimerRecord *record;
    uint32_t type;            /* always 3 */
} sTimerDescriptor;

typedef struct sTimerMeters {
    uint32_t expiries;
    sTimeRecord *second;
    sTimeRecord *start;
} sTimerMeters;

/* `*handle` must be null (detail 3); a null or zero interval: detail 2; a
 * negative one, or one of 2^32 seconds or more: detail 5. The interval is
 * split into whole seconds and microseconds rounded to the nearest
 * microsecond (1.5 is 1 s and 500000 us; 0.3 is 300000 us, where truncating
 * the double would give 299999). The start time is the time of opening. */
uint64_t sys_td_open(sTimerDescriptor **handle, double *interval, uint32_t *err);
/* Writes the interval's 8 bytes (a double) to `*out`. */
uint64_t sys_td_get_info(sTimerDescriptor *td, uint64_t *out, uint32_t *err);
uint64_t sys_td_get_meters(sTimerDescriptor *td, sTimerMeters *out, uint32_t *err);
/* Stores the expiry counter and copies the record at `in->start` into the
 * start time. */
uint64_t sys_td_set_meters(sTimerDescriptor *td, sTimerMeters *in, uint32_t *err);
/* Frees the timer; the caller's handle variable is left as it was. */
uint64_t sys_td_close(sTimerDescriptor *td, uint32_t *err);

/* ---- External OS descriptors ------------------------------------------------ */

/* Keeps a copy of `*os_fd` (negative: detail 5) in `*handle`, which must be
 * null (detail 3). */
uint64_t sys_extd_open(int32_t **handle, int32_t *os_fd, uint32_t *err);
/* Frees the copy and nulls `*handle`; the OS descriptor stays open: it
 * belongs to whoever opened it. */
uint64_t sys_extd_close(int32_t **handle, uint32_t *err);

/* ---- Events (placeholders: they answer as documented and do nothing) ------- */

/* A null request: detail 2; `request[0]` must be 101 or 102 (detail 5);
 * allocates nothing, and `*handle` is left alone. */
uint64_t sys_event_open(void **handle, const uint32_t *request, uint32_t *err);
/* Always 0; detail 2 for a null event, else 0. */
uint64_t sys_event_close(void *event, uint32_t *err);
/* Always 0; detail 2 unless both are non-null, else 0. */
uint64_t sys_event_delete(void *a, void *b, uint32_t *err);
uint64_t sys_event_insert(void *a, void *b, uint32_t *err);
/* Stores `current` into `*out`, a null one too, which then answers 0 with
 * detail 2 (as does a null `out`). */
uint64_t sys_event_get_current(void **out, void *current, uint32_t *err);
/* Always 0; detail 2 for a null `c`, else 0. */
uint64_t sys_event_get_first(void *a, void *b, void *c, uint32_t *err);
uint64_t sys_event_get_next(void *a, void *b, void *c, uint32_t *err);

/* ---- Sockets carrying whole records ------------------------------------------ */

enum {
    SYS_SD_TCP = 1,           /* TCP client; a record is a 4-byte native-order length and its bytes */
    SYS_SD_UDP = 5            /* UDP client; a record is one datagram */
};

typedef struct sSdOpenRequest {
    sPChar address;           /* "host:port" to connect to */
    sPChar reconnect_address; /* "host:port" that sys_sd_reconnt connects to */
    uint32_t kind;            /* SYS_SD_TCP or SYS_SD_UDP */
    uint32_t attempts;        /* connect attempts before giving up; 0 counts as 1 */
    uint32_t timeout_s;       /* seconds a connect to one address may take; 0: the system's */
    uint32_t blocking;        /* 1: a read waits for a whole record; 0: detail 4 when none is there */
} sSdOpenRequest;

/* A record holds 0 to 64 MiB bytes (a longer one is refused with detail 5);
 * an empty record is a record like any other, on both kinds. A descriptor
 * is used by one thread at a time.
 *
 * Connects into `*handle`, which must be null (detail 3). A null request:
 * detail 2; another kind: detail 5. The address is split at its last ':',
 * so "::1:80" and "[::1]:80" name IPv6 hosts; a missing part, a port that is
 * not a decimal number, or a host that does not resolve: detail 32. Every
 * address the host resolves to is tried once per attempt, the attempts
 * following one another at once; none connecting: detail 33. A UDP
 * connection only fixes the peer, so it succeeds for any address that
 * resolves: a peer that is not there shows as detail 33 on a later read or
 * write. An empty reconnect address means the address itself. */
uint64_t sys_sd_open(void **handle, sSdOpenRequest *req, uint32_t *err);
/* Replaces `dst`'s content with exactly one whole record (`dst` is empty
 * after a failure). Without blocking, detail 4 when no whole record is
 * there; bytes of a partial one are kept for the next read. Detail 31 when
 * the peer closed or the connection was dropped; a TCP length above 64 MiB
 * is detail 5 and drops the connection, since no later record could be
 * found in the stream; detail 9 when `dst` cannot grow (the record waits for
 * the next read). */
uint64_t sys_sd_read(void *sd, uint64_t ignored, scratchcb *dst, uint32_t *err);
/* Sends `src` as one record (all of it, or detail 31 / 33 / 1; a datagram
 * too large for the network: detail 5). Writes always wait until the system
 * has taken the whole record, whatever `blocking` says, and never raise
 * SIGPIPE. A failed TCP write drops the connection, since part of the record
 * may have left: reads and writes answer 31 until a reconnect succeeds. */
uint64_t sys_sd_write(void *sd, uint64_t ignored, scratchcb *src, uint32_t *err);
/* Closes the connection, frees the descriptor and nulls `*handle`. Detail 1
 * when the system reported an error on close; the descriptor is gone all the
 * same. */
uint64_t sys_sd_close(void **handle, uint32_t *err);
/* Drops the connection (and any partial record) and connects again, to the
 * reconnect address, with the attempts and time-out of the open. Failure
 * (detail 32 or 33) leaves the descriptor unconnected until a later
 * reconnect succeeds. */
uint64_t sys_sd_reconnt(void *sd, uint32_t *err);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZEL_DESCRIPTORS_H */
