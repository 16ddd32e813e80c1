/* libtq.tarquel.ini: the SDK's ini-file reader (integer settings).
 * Section and key names compare without regard to case. */
#ifndef TQ_RKINI_H
#define TQ_RKINI_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct RkIni* RkIniHandle; /* NULL = no file open */

/* Creates an empty ini object; `commentChars` lists the characters that start a
 * comment, at the start of a line or after a blank (NULL means ";#"). ';' and
 * '#' at the start of a line, and " ;" inside one, are comments in any case.
 * Returns NULL only on allocation failure. */
RkIniHandle RkIniOpen(const char* commentChars);

/* Replaces the object's content by the file at `path`. Returns 1 on success, 0 when
 * the file is missing or cannot be parsed (the previous content is kept then); one
 * bad line (no '=' or ':', unclosed section, more than 197 characters) fails the
 * whole file. */
int RkIniLoad(RkIniHandle ini, const char* path);

/* The integer at [section] key, or `defaultValue` when the object, section or key
 * is missing or the value is not a number. `flags` bit 0 accepts 0x-prefixed
 * hexadecimal besides decimal (negative numbers are always accepted). */
long RkIniGetInteger(RkIniHandle ini, const char* section, const char* key, long defaultValue, int flags);

/* Frees the object; NULL is ignored. */
void RkIniClose(RkIniHandle ini);

#ifdef __cplusplus
}
#endif

#endif
