/* UTF-8 to UTF-16 conversion, which file paths go through on their way to the
 * platform, and the names of the UTF-8 reader states. */
#ifndef HOSTKIT_SYSUTF8_H
#define HOSTKIT_SYSUTF8_H

#include <stdint.h>

#include "sysenv.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum Utf8State {
  UTF8STATE_OK = 0,
  UTF8STATE_EOF = 1,
  UTF8STATE_ERR_IO = 2,
  UTF8STATE_ERR_UTF8 = 3,
  UTF8STATE_ERR_PREMATURE_END = 4,
  UTF8STATE_ERR_ILLEGAL_UNICODE = 5
} Utf8State;

enum { UTF8STATE_COUNT = 6 };

/* The state names, indexed by state value. */
extern const char* const sysutf8_state_names[UTF8STATE_COUNT];

/* Converts the NUL-terminated UTF-8 `source` to UTF-16 units.
 *
 * With a null `destination` it measures: the result is the number of units
 * the whole text needs, not counting the terminator, and `capacity` is not
 * looked at. With a `destination` of `capacity` units (terminator included,
 * `capacity` at least 1) it writes at most `capacity` - 1 units and a
 * terminating 0, and never a unit past `capacity`: a surrogate pair that
 * doesn't fit whole is left out, and `consumed` stops before its bytes, so a
 * caller can carry on from there. A null `source` converts as an empty text.
 *
 * Malformed sequences and values above 0x10FFFF each give one unit 0x2E
 * ('.') and count one replacement in `bad_count`. Overlong forms and encoded
 * surrogates below 0x10000 pass through unchanged. `consumed` receives the
 * bytes read. Both out-parameters may be null. */
uint64_t sysutf8_to_utf16(const char* source, uint16_t* destination, uint64_t* consumed,
                          uint64_t capacity, int32_t* bad_count);

/* The environment's form: stores the converter's result in `written` (may be
 * null) and returns 0, or SYSENV_ERR_UTF8 when anything was replaced. */
int32_t sysenv_utf8_to_utf16(SysEnv* env, uint64_t capacity, uint64_t* written,
                             uint16_t* destination, uint64_t* consumed, const char* source);

#ifdef __cplusplus
}
#endif

#endif
