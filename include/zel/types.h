/*
 * Counted strings and scratch buffers: the two value types that carry every
 * text and every binary message through the library.
 *
 * Conventions (every function here): the result is 1 on success and 0 on
 * failure; a detail code is written through the last argument:
 *   0  success
 *   1  null control block, or out of memory
 *   2  invalid argument
 *   3  null control block in punset_buffer_size
 *   4  handle already open
 *   5  passed through from the allocator (size not positive, nothing to free)
 *  -1  a free failed
 * A null detail pointer is allowed: the call then does not report its detail.
 * None of these functions locks: a buffer or string belongs to one thread at
 * a time.
 */
#ifndef ZEL_TYPES_H
#define ZEL_TYPES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A counted string. `data` is not owned (unless made by pchar_replicate_mem)
 * and need not be NUL-terminated. */
typedef struct sPChar {
    char *data;
    int32_t len;
} sPChar;

/* A growable byte buffer. `len` is the bytes in use and doubles as the append
 * cursor of the pput_* writers; `size` is the size last asked for through
 * pset_buffer_size; `alloc` is what `data` really holds. */
typedef struct scratchcb {
    int32_t len;
    int32_t size;
    int32_t alloc;
    char *data;
} scratchcb;

/* ---- Buffer management ---------------------------------------------------- */

/* Makes `alloc >= size` (never shrinks) and stores `size` in `s->size`; `len`
 * is untouched. Growth failure leaves the buffer as it was (detail 1). */
int pset_buffer_size(scratchcb *s, int size, int *err);

/* Frees the buffer and zeroes the block. Null block: detail 3. */
int punset_buffer_size(scratchcb *s, int *err);

/* Makes a heap control block with a buffer of `size` bytes into `*handle`,
 * which must be null (detail 4). Close it with zel_close_scratch. */
int zel_open_scratch(scratchcb **handle, int size, int *err);

/* Initialises a caller-owned control block with a buffer of `size` bytes;
 * `len` is left as it was. On a growth failure the control block itself is
 * handed to the allocator's free, as the library always has: open only heap
 * blocks with it where allocation can fail. */
int zel_open_scratchcb(scratchcb *s, int size, int *err);

/* Frees the buffer and the control block. The caller's handle variable is NOT
 * cleared: set it to null yourself. */
int zel_close_scratch(scratchcb **handle, int *err);

/* Appends `src->len` bytes of `src` to `dst`, growing `dst` with 512 bytes of
 * headroom. If that growth fails the control block `dst` is handed to the
 * allocator's free (its buffer is not) and the result is 0. */
int p_append_buf(scratchcb *dst, scratchcb *src, int *err);

/* ---- Counted strings ------------------------------------------------------- */

/* Copies `src->len` bytes to `dst`; overlapping ranges are safe. */
int p_mem_copy(char *dst, sPChar *src, int *err);

/* Makes `dst` an owned heap copy of `src` (no terminator added). A length of
 * 0 or less fails in the allocator (detail 5). Free with pchar_destroy_mem. */
int pchar_replicate_mem(sPChar *dst, sPChar *src, int *err);

/* Frees `s->data` and sets the string to (null, 0). */
int pchar_destroy_mem(sPChar *s, int *err);

/* Equality: 1 when the lengths are equal and the bytes match (ASCII
 * case-insensitively when `nocase` is non-zero, stopping at a NUL as
 * strncasecmp does), else 0. The detail is written only for a null operand
 * (result 0, detail 2). */
int pchar_compare(sPChar *a, sPChar *b, int nocase, int *err);

/* Three-way ordering as strcmp over the NUL-terminated texts (an embedded NUL
 * ends the comparison): -1, 0 or 1. A null or empty operand gives 0 with
 * detail 2; on success the detail is 1, not 0: look at the result only. */
int pchar_compare_match(sPChar *a, sPChar *b, int *err);

/* Sorts `count` strings ascending by pchar_compare_match. Always 1. */
int p_quicksort_pchars(sPChar *array, int count, int *err);

/* ---- Numbers in text ------------------------------------------------------- */

/* Decimal text to number: the first byte is a digit or '-', the rest digits
 * ('.' also allowed by pchars_to_double). No '+', spaces or exponent; at most
 * 127 characters. Converted as atoi/atol/atof do (a lone '-' is 0; the short
 * takes the low 16 bits of the int). Failure: detail 2, `*out` untouched. */
int pchars_to_int(int *out, sPChar *src, int *err);
int pchars_to_long(long *out, sPChar *src, int *err);
int pchars_to_short(short *out, sPChar *src, int *err);
int pchars_to_double(double *out, sPChar *src, int *err);

/* 1 when every character is a decimal digit (the empty string counts), 0 at
 * the first other character or for a null pointer. No sign is accepted. */
int isstrnum(const char *s);

/* ---- Raw numbers in a byte buffer (host order, unaligned) ------------------ */

/* Store or load 2 or 4 bytes at `base + *offset` and advance `*offset`. No
 * bounds check: the caller guarantees room. Pass `&scratch->len` as the offset
 * to append to a scratch. Always 1 with detail 0. */
int pput_two_byte_num(unsigned short value, char *base, int *offset, int *err);
int pput_four_byte_num(unsigned int value, char *base, int *offset, int *err);
int pget_two_byte_num(unsigned short *out, char *base, int *offset, int *err);
int pget_four_byte_num(unsigned int *out, char *base, int *offset, int *err);

#ifdef __cplusplus
} /* extern "C" */

/* Makes a control block and its buffer with the checks of zel_open_scratch
 * (detail 4 for a non-null handle, 2 for a size <= 0, 1 when out of memory)
 * but never hands it out: the handle stays null and the call answers 1 with
 * detail 0. Use zel_open_scratch to get a scratch. C++ linkage. */
int palloc_scratch(scratchcb **handle, int size, int *err);
#endif

#endif /* ZEL_TYPES_H */
