/*
 * Logging: one handle per application writes time-stamped, printf-style lines
 * or tagged message records to a file or to a remote logger.
 *
 * Where the log goes is chosen when the handle is opened, by the environment,
 * never by an argument:
 *   PL_LOG_TYPE     exactly one of (case and blanks matter):
 *                     "log_file"       text lines in the file PL_LOG_FILE
 *                     "log_text_file"  opens (empties) PL_LOG_FILE, but
 *                                      sys_log refuses to write to it
 *                                      (detail 2); sys_log_pm still writes
 *                     "log_mnm_file"   records in PL_LOG_FILE, each preceded
 *                                      by its 4-byte native-order length
 *                     "log_net"        one UDP datagram per record to
 *                                      PL_LOGGER_ADDR
 *                   Unset or anything else: the open fails with detail 2.
 *   PL_LOG_FILE     path of the log file. It is created with permission 0600
 *                   and emptied at every open, never appended to.
 *   PL_LOGGER_ADDR  "host:port" of the remote logger (log_net only).
 *   USER, HOSTNAME  copied into every text line; unset, the field is empty
 *                   and two blanks stand in a row.
 * The environment is read only by sys_log_open: changing it later does not
 * affect an open handle.
 *
 * A text line (log_file) reads, byte for byte:
 *   <time, 24 characters> " " <HOSTNAME> " " <USER> " " <name> " : " <message> "\n"
 * The time is the local time (TZ applies) in the "%c" layout of the current
 * C locale ("Tue Mar  5 07:08:09 2024" unless the application has called
 * setlocale), padded with spaces or cut to exactly 24 characters.
 *
 * Limits, chosen so that a line is never written past its buffer:
 *   - a formatted message is cut to SYS_LOG_MESSAGE_MAX bytes;
 *   - a text line, without its "\n", is cut to SYS_LOG_LINE_MAX bytes.
 *   A cut falls on a UTF-8 character boundary (a multi-byte character is
 *   dropped whole, never split); nothing marks that a cut happened.
 *
 * A record (log_mnm_file, log_net, sys_log_pm*) is one message in the
 * library's binary format (message.h). The record that sys_log writes holds a
 * single field, SYS_LOG_TEXT_TAG, whose value is the formatted message alone:
 * no time, host, user or name. An empty message gives an empty value.
 *
 * Every function answers 1 for success and 0 for failure and writes a detail
 * code through its detail argument (the last one, except in sys_log where it
 * is the third):
 *   0  success
 *   1  the log file could not be opened, whatever the reason: PL_LOG_FILE
 *      unset, a directory that does not exist, no permission; or memory ran
 *      out while opening
 *   2  a null handle, name, format, or tag or value array (count > 0);
 *      PL_LOG_TYPE unset or not recognised;
 *      sys_log on a "log_text_file" handle; a record call on a handle without
 *      that destination (sys_log_pm on log_net, sys_log_pm_net on a file)
 *   5  the format could not be expanded (vsnprintf failed)
 *   7  sys_log_open into a handle variable that is not null
 *  15  the record could not be started or a field could not be added (a tag
 *      above 65534, a null or malformed value)
 *  other  passed through from the descriptor layer (descriptors.h): a failed
 *      write, the logger's socket open (31, 32, 33: peer closed, address
 *      not resolvable, refused), or a close
 * A null detail pointer is allowed: the call then does not report its detail.
 *
 * Threading: a handle has one line buffer and one record buffer and no lock.
 * Use one handle from one thread at a time; separate handles may be used on
 * separate threads. sys_log_open reads the environment through the platform
 * layer's one shared buffer (platform.h): do not open a log while another
 * thread reads environment variables through that layer.
 */
#ifndef ZEL_LOG_H
#define ZEL_LOG_H

#include <stdint.h>
#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    SYS_LOG_TEXT_TAG = 20008,     /* the field holding sys_log's message in a record */
    SYS_LOG_LINE_MAX = 4096,      /* bytes of a text line, without its "\n" */
    SYS_LOG_MESSAGE_MAX = 16399   /* bytes of one formatted message */
};

/* An open log. Its content is private; hold only the pointer. */
typedef struct sLogHandle sLogHandle;

/* Opens a log into `*handle`, which must be null (detail 7), as the
 * environment describes (see above). `name` is the application's name, copied
 * into every text line; it may be empty but not null (detail 2). A log_net
 * open connects its socket at once and fails with the socket's detail. On
 * failure nothing stays allocated and `*handle` stays null. */
uint64_t sys_log_open(sLogHandle **handle, sPChar *name, uint32_t *err);

/* Formats one message as printf does and writes it: as a text line
 * (log_file) or as a record holding SYS_LOG_TEXT_TAG (log_mnm_file,
 * log_net). `level` and `reserved` are accepted and ignored. Note the detail
 * pointer's place, third, before the format. */
uint64_t sys_log(sLogHandle *log, uint32_t level, uint32_t *err, uint64_t reserved, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 5, 6)))
#endif
    ;

/* Builds one record of `count` fields, field i being tag `tags[i]` with the
 * single value `*values[i]`, and writes it to the log file (a record file
 * puts its length before it; a text file puts "\n" after it). `level` is
 * ignored. A log_net handle: detail 2. */
uint64_t sys_log_pm(sLogHandle *log, uint32_t level, uint32_t count, uint32_t *tags, sPChar **values, uint32_t *err);

/* As sys_log_pm, but sends the record to the remote logger as one datagram.
 * A file handle: detail 2. */
uint64_t sys_log_pm_net(sLogHandle *log, uint32_t level, uint32_t count, uint32_t *tags, sPChar **values, uint32_t *err);

/* Closes the file or socket, frees everything and nulls `*handle`. A null
 * handle: detail 2. If the descriptor's close fails the handle is released
 * all the same and the result is 0 with the descriptor layer's detail. */
uint64_t sys_log_close(sLogHandle **handle, uint32_t *err);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZEL_LOG_H */
