/*
 * Messages: a binary record of tagged fields, its parsed form `vartocb`, and
 * its admin text form.
 *
 * Wire layout (host byte order, no padding):
 *   magic 0x4242 (2 bytes) | item count (4 bytes) | items...
 *   item = tag (2 bytes, 0..65534) | value length (4 bytes) | value bytes
 * Tag 65535 marks a deleted item; parsers skip it but step over its bytes.
 * Tags 32760..32767 are the transport's own header fields. Several messages
 * may follow one another in one buffer.
 *
 * Results are 1 for success and 0 for failure; the detail code, written
 * through the last argument, is one of:
 *   0  success
 *   1  null vartocb (or null output record)
 *   2  invalid argument: bad magic, tag out of range, index out of range, an
 *      item or header running past the end of the input
 *   4  a header could not be written (a buffer could not grow)
 *   5  passed through from the allocator
 *   6  not found or empty: no such field, no more messages, an empty value,
 *      a message not yet parsed
 *  -1  a free or reallocation failed
 * A null detail pointer is allowed: the call then does not report its detail.
 *
 * A vartocb is made once and reused; it belongs to one thread at a time.
 * After an in-place parse its values point into the caller's input buffer,
 * which must outlive the field accesses; after building, a copy-mode parse or
 * a filtered parse they point into the build buffer, and any call that grows
 * that buffer makes earlier values stale (fetch them again).
 */
#ifndef ZEL_MESSAGE_H
#define ZEL_MESSAGE_H

#include <stdint.h>
#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    ZEL_MSG_MAGIC = 0x4242,
    ZEL_MSG_HEADER_SIZE = 6,
    ZEL_ITEM_HEADER_SIZE = 6,
    ZEL_TAG_SLOTS = 65535,      /* tags 0..65534 */
    ZEL_DELETED_TAG = 0xFFFF,
    ZEL_TRANSPORT_TAG_FIRST = 32760,
    ZEL_TRANSPORT_TAG_LAST = 32767
};

/* One item of a field: its value inside the message buffer. `data` points just
 * past the item's header, also for an empty value. */
typedef struct sVartoItem {
    char *data;
    int32_t len;
    struct sVartoItem *next;
} sVartoItem;

/* All items of one tag, in index order. The first lives in the slot itself. */
typedef struct sVartoSlot {
    int32_t count;
    sVartoItem first;
    sVartoItem *last;
} sVartoSlot;

typedef struct vartocb {
    sVartoSlot slots[ZEL_TAG_SLOTS];
    int32_t item_count;     /* items of the current message, deleted ones too */
    int32_t header_offset;  /* where the message header lies in `build` */
    int32_t count_offset;   /* header_offset + 2 */
    int32_t next_offset;    /* where the next parse of `input` begins */
    int32_t msg_start;
    int32_t msg_end;
    int32_t parsed;
    int32_t *tags;          /* tags present, in order of first appearance */
    int32_t tag_count;
    int32_t tag_capacity;
    int32_t tag_iter;
    scratchcb *build;       /* buffer the items live in */
    scratchcb *input;       /* buffer being parsed */
    sVartoItem *spare_items; /* recycled item records (internal) */
} vartocb;

/* ---- Life cycle ------------------------------------------------------------ */

/* Makes a vartocb into `*handle`, which must be null (detail 4). */
int zel_ctor_vartocb(vartocb **handle, int *err);
/* Releases it and nulls `*handle`. Null: detail 1. */
int zel_dtor_vartocb(vartocb **handle, int *err);
/* Forgets the indexed message (fields and tag list) but keeps the record. */
int zel_clean_vartocb(vartocb **handle, int *err);

/* ---- Parsing --------------------------------------------------------------- */

/* Parses the first message of `msg` in place. */
int zel_parse_msg(vartocb *m, scratchcb *msg, int *err);

/* Parses the first message of `in`. With `copy` null or equal to `in` the
 * parse is in place; otherwise the message is copied, compacted (deleted
 * items dropped), into `copy`, which is reset first. */
int zel_parse_first_msg(vartocb *m, scratchcb *copy, scratchcb *in, int *err);

/* Parses the message after the last one parsed; detail 6 when the input holds
 * no more. Walk a buffer by calling it until it fails; stop at any failure
 * (detail 2 means the rest of the buffer is not well formed). */
int zel_parse_next_msg(vartocb *m, scratchcb *copy, int *err);

/* Filtered copies of the first message of `in` into the message started with
 * zel_start_msg (whose buffer must not be `in`). The interested form copies
 * the listed tags (every tag when `ntags` is 0), the uninterested form all but
 * the listed ones (the list must not be empty). Nothing copied: detail 6. */
int zel_parse_interested_field_in_msg(vartocb *m, scratchcb *in, int *tags, int ntags, int *err);
int zel_parse_uninterested_field_in_msg(vartocb *m, scratchcb *in, int *tags, int ntags, int *err);

/* Points `out` at the parsed message's bytes in the input. After a copy-mode
 * parse it points at the start of the input with the current message's
 * length, as it always has. Not parsed: detail 6. */
int zel_get_parsed_msg(vartocb *m, sPChar *out, int *err);

/* ---- Field access ------------------------------------------------------------ */

/* Item count of `tag`. Absent: result 0, detail 6. */
int zel_get_field(vartocb *m, int tag, int *count, int *err);
/* Item `index` of `tag`. An empty value: `out` zeroed, result 0, detail 6. */
int zel_get_data(vartocb *m, int tag, int index, sPChar *out, int *err);
/* Number of fields present. */
int zel_get_field_count(vartocb *m, int *nfields, int *err);
/* Number of fields present and their total item count. */
int zel_get_count(vartocb *m, int *nfields, int *nitems, int *err);

/* Iterate the fields in order of first appearance: first, then next until
 * detail 6 (which also rewinds). The _sort form sorts the tag list ascending
 * first, for this and every later iteration of the message. For tag 65534
 * `*count` is not written. */
int zel_get_first_field(vartocb *m, int *tag, int *count, int *err);
int zel_get_next_field(vartocb *m, int *tag, int *count, int *err);
int zel_get_first_field_sort(vartocb *m, int *tag, int *count, int *err);
int zel_get_next_field_sort(vartocb *m, int *tag, int *count, int *err);

/* ---- Building -------------------------------------------------------------- */

/* Starts a message at `out->len` (after any earlier content) and makes `out`
 * the build buffer. */
int zel_start_msg(vartocb *m, scratchcb *out, int *err);

/* Appends `count` items of `tag`, one per entry of `items`. A value is either
 * (null, 0), an empty value, or (non-null, positive length); anything else is
 * detail 2. A value may point into the build buffer itself. */
int zel_add_data(vartocb *m, int tag, int count, sPChar *items, int *err);

/* Appends one raw item (tag, length, bytes; no message header) to the heap
 * string `buf`. Mark an unallocated `buf` with length -1. */
int zel_add_data_pchar(sPChar *buf, int tag, sPChar *value, int *err);

/* Appends the current message to `dst`. When the message is longer than
 * `dst->alloc` the call only grows `dst` and answers 0 with detail 0: call
 * again, as callers always have, to copy. */
int zel_build_msg(vartocb *m, scratchcb *dst, int *err);

/* ---- Editing (on the message indexed in `m`) -------------------------------- */

/* Replaces item `index` of `tag`. The field's items are marked deleted and
 * written anew at the end of the message, so the message grows. */
int zel_replace_data_item(vartocb *m, int tag, int index, sPChar *value, int *err);
/* Marks one item deleted; the header's count still counts it. */
int zel_delete_data_item(vartocb *m, int tag, int index, int *err);
/* Marks every item of `tag` deleted. Absent: detail 6. */
int zel_delete_field(vartocb *m, int tag, int *err);
/* Deletes every listed tag that is present; none present: detail 2. */
int zel_delete_field_list(vartocb *m, int *tags, int ntags, int *err);

/* ---- Copying ----------------------------------------------------------------- */

/* Adds every item of `src_tag` in `src` to the message built in `dst` under
 * `dst_tag`. Absent in `src`: result 0, detail 6. */
int zel_copy_field_as(vartocb *dst, vartocb *src, int dst_tag, int src_tag, int *err);
int zel_copy_field(vartocb *dst, vartocb *src, int tag, int *err);
/* Copies every field of `src`; on success the result is 1 and the detail 6
 * (the end of the field iteration). */
int zel_copy_msg(vartocb *dst, vartocb *src, int *err);

/* ---- Admin text ---------------------------------------------------------------- */

/* Splits `text` into tokens, in place: blanks, tabs and line breaks separate;
 * 'single quotes' enclose a token, '' inside stands for one quote. The caller's
 * array must hold every token (text length / 2 + 1 always suffices). Returns 0
 * for an empty text, 1 otherwise. */
int zel_get_data_triplets(sPChar *tokens, int *ntokens, sPChar *text);

/* Appends the admin text ("tag count value " per item, final space included)
 * of the message to `out`. Null `m`: 1; null `out`: 2. */
int varto_to_admin(vartocb *m, scratchcb *out, int *err);

/* The same text made by walking the build buffer in buffer order, deleted
 * items shown with tag 65535; a NUL follows the text (not counted). */
int varto_to_printable_admin(vartocb *m, scratchcb *out, int reserved, int *err);

/* Builds a message into `out` from admin tokens (zel_get_data_triplets). A
 * triplet with count 0 must be followed by another token. */
int varto_from_admin(vartocb *m, int ntokens, sPChar *tokens, scratchcb *out, int *err);

/* Builds a message from strings "tag count value..." (an argument vector).
 * `pair` points to { vartocb *, scratchcb * }. A non-numeric tag or count
 * answers 0 without writing a detail. */
int read_mnm_couplets(void *pair, int argc, const char **argv, int *err);

/* Renders the message as admin text plus a line feed to standard output
 * (`dest` is "stdout") or to the file named by `dest` (created or truncated).
 */
int zel_parse_print_msg(vartocb *m, sPChar *dest, int *err);

/* ---- Message-level copies ------------------------------------------------------ */

/* Adds every field of `src` outside 32760..32767 to the message built in `dst`. */
int varto_copy_msg_recieve(vartocb *src, vartocb *dst, int *err);

/* Merges the first item of every field of `src` (outside 32760..32767) into
 * the message held in `dst`: absent fields are added, differing values are
 * rewritten in place. The variable arguments are, in order:
 *   int *all_tags, int *n_all_tags       every field of src (appended)
 *   sPChar *all_values, int *n_all_values  its first value
 *   int *kept_tags, int *n_kept_tags     fields added, changed or equal
 *   int *err
 * Each list needs room for one entry per field of `src`; entries are appended
 * at the list's current count. */
int varto_copy_changed_fields(vartocb *src, vartocb *dst, ...);

/* Appends the whole build buffer of `m` to `out`. */
int varto_to_scratch(vartocb *m, scratchcb *out, int *err);

/* 1 when `m` holds at least one field parsed in place from `s`; else detail 2. */
int varto_scratch_comp(vartocb *m, scratchcb *s, int *err);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZEL_MESSAGE_H */
