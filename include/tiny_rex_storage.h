/* tiny_rex_storage.h: files of already compiled tiny_rex patterns, so that a subject can be
 * tested against hundreds of patterns without compiling any of them.
 *
 * File format (integers are 32-bit, in the writing host's byte order, no padding): the magic
 * TRS_MAGIC, then records back to back up to the end of the file. A record is a node count
 * N (1 to TRS_MAX_NODES) and N nodes of 16 bytes (the TRexNode layout), node 0 first.
 *
 * Conventions:
 *  1. Writers call trs_set_header() once, then trs_store() for each pattern. Readers call
 *     trs_valid_file(), then trs_next() until it returns false at the end of the file.
 *  2. A pattern read back carries no flags: it always matches without regard to case.
 *  3. Failures are ERROR lines through ow_log.h and false; progress is DEBUG lines.
 *  4. The FILE* belongs to the caller; these functions only read, write and reposition it.
 */
#ifndef TINY_REX_STORAGE_H
#define TINY_REX_STORAGE_H

#include <stdbool.h>
#include <stdio.h>

#include "ow_export.h"
#include "tiny_rex.h"

#ifdef __cplusplus
extern "C" {
#endif

#define TRS_MAGIC 60345
/* A record's nodes take at most 65535 bytes. */
#define TRS_MAX_NODES 4095

/* True when fp starts with the magic; fp is left after it. False (logged) for NULL, a
 * failed rewind or a short read; false without a line for a foreign file. */
OW_API bool trs_valid_file(FILE* fp);

/* Empties fp (open for reading and writing) and writes the magic; fp is left after it. */
OW_API bool trs_set_header(FILE* fp);

/* Appends exp's used nodes as one record at fp's position. False (logged) when either is
 * NULL, exp is empty, has more than TRS_MAX_NODES nodes, or the write fails. */
OW_API bool trs_store(FILE* fp, const TRex* exp);

/* Reads the record at fp's position into exp: exp->nodes is replaced (the old array is
 * freed), exp->nallocated set to the node count and exp->cursor to the matcher's facts
 * (tiny_rex.h, convention 9), or NULL; the other fields are left alone. False
 * at the end of the file (a DEBUG line) and for a bad record (logged); after a bad record
 * fp is wherever the read stopped, so the caller may go on reading. */
OW_API bool trs_next(FILE* fp, TRex* exp);

/* True when any pattern of the file at path matches subject; patterns are tried in file
 * order and the first match ends the search. A missing file is false without a line; a
 * foreign file is false with one; bad records are passed over. */
OW_API bool compiled_regex_match(const char* path, const char* subject);

#ifdef __cplusplus
}
#endif

#endif /* TINY_REX_STORAGE_H */
