/* tiny_rex.h: a small regular-expression compiler and backtracking matcher for host names,
 * addresses and list entries. It answers only whether a subject matches.
 *
 * Conventions:
 *  1. A pattern compiles into one flat array of 16-byte nodes that refer to each other by
 *     index, so the array can be written to a file and read back unchanged
 *     (tiny_rex_storage.h). Every node is checked before the matcher enters it, so a
 *     corrupt array read from disk is refused, never followed.
 *  2. Compilation wraps the text: a pattern not starting with "^" or ".*" gets ".*" in front,
 *     and one not ending with "$" gets ".*$" behind. So "abc" is found anywhere, "^abc" only
 *     at the start and "abc$" only at the end. The wrapping is textual: "a|b" becomes
 *     ".*a|b.*$".
 *  3. Case mode 0 compares letters without regard to case (ranges too, but not the single
 *     characters of a class); any other value compares exactly. Character classes are those
 *     of the POSIX locale whatever the process locale is.
 *  4. Groups nest at most TREX_MAX_NESTING deep. A match that would recurse deeper than
 *     TREX_MAX_RECURSION nodes or enter more than TREX_MAX_STEPS nodes is abandoned with an
 *     ERROR line and counts as no match, so hostile subjects cost bounded time and stack.
 *  5. Character nodes hold the printable characters and the control characters 9 to 13 that
 *     the escapes \t \n \v \f \r stand for; the compiler refuses any other byte, escaped or
 *     not, and the matcher refuses such a node read from a file.
 *  6. Matching differs from the usual regular-expression engines in three ways: "*" never
 *     falls back to zero repetitions once its operand has matched; a bounded repetition such
 *     as {1,3} inside a group takes as many as it can; and an alternative is matched on its
 *     own, so a ".*" inside an alternative must reach the end of the subject.
 *  7. Failures are ERROR lines through ow_log.h and a failure value; nothing aborts.
 *  8. A compiled pattern is not thread-safe while it is being matched (the matcher keeps its
 *     subject bounds in the record); give each thread its own.
 *  9. trex_compile_ex() and trs_next() keep facts about the pattern (checked nodes, class
 *     tables, required text) in the node array's block, behind its nallocated nodes, and
 *     point cursor at them; they are freed with the nodes. The nodes of such a pattern are
 *     read-only: a caller who changes them, or gives the record another array, sets cursor
 *     to NULL, and the matcher then checks each node as it goes.
 */
#ifndef TINY_REX_H
#define TINY_REX_H

#include <stdbool.h>
#include <stdint.h>

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Node types: 0-255 are literal characters, these are the operators. */
enum {
    OP_GREEDY = 256,          /* left: operand; right: max in low 16 bits, min in high 16 */
    OP_OR = 257,              /* left: first alternative; right: second (maybe an OP_OR) */
    OP_EXPRESSION = 258,      /* left: enclosed sequence; right: expression number */
    OP_EXPRESSION_ALT = 259,  /* matched like OP_EXPRESSION, never produced by the compiler */
    OP_ANY = 260,             /* "." */
    OP_CLASS = 261,           /* "[...]"; left: first member */
    OP_CHARACTER_CLASS = 262, /* "\d" and friends; left: the class letter */
    OP_NON_MATCH_CLASS = 263, /* "[^...]"; left: first member */
    OP_RANGE = 264,           /* class member "a-z"; left: first code, right: last code */
    OP_UNUSED = 265,          /* refused wherever it appears */
    OP_EOL = 266,             /* "$" */
    OP_BOL = 267,             /* "^" at the start of a list */
    OP_WORD_BLOCK = 268,      /* "\b" or "\B"; left: the letter */
    OP_ANY_RUN = 269          /* ".*" */
};

/* Repetition bounds: a maximum of TREX_UNBOUNDED means no upper limit. */
#define TREX_UNBOUNDED 65535
#define TREX_MAX_NESTING 50
#define TREX_MAX_RECURSION 1000
#define TREX_MAX_STEPS 1000000L

/* One node. The field order and sizes are also the node record of the pattern files. */
typedef struct TRexNode {
    int32_t type;  /* a character code or an OP_ code */
    int32_t left;  /* first operand, -1 when unused */
    int32_t right; /* second operand, -1 when unused */
    int32_t next;  /* next node of the same sequence, -1 at its end */
} TRexNode;

/* A compiled pattern. The record owns nodes; release both with trex_free(). */
typedef struct TRex {
    int32_t nallocated; /* capacity of nodes (a pattern read from a file: its node count) */
    TRexNode* nodes;    /* node 0 is the whole-pattern expression */
    int32_t nsize;      /* nodes in use */
    int32_t nsubexpr;   /* expression nodes created */
    int32_t depth;      /* expression nesting while matching */
    int32_t first;      /* index of the root node, always 0 */
    const char* eol;    /* end of the subject (its NUL) during a match */
    const char* bol;    /* start of the subject during a match */
    const char* cursor; /* parse position during compilation; then the matcher's own data */
    uint8_t case_mode;  /* 0: ignore case; anything else: exact */
} TRex;

/* Compiles pattern (see convention 2) with the given case mode. Returns a new pattern to be
 * released with trex_free(), or NULL when the pattern is NULL or empty, does not compile, or
 * memory runs out (each logged). */
OW_API TRex* trex_compile_ex(const char* pattern, uint8_t case_mode);

/* True when subject matches exp. False, with an ERROR line, when either is NULL, when exp
 * holds a corrupt node on the path the match takes, or when the match exceeds its limits
 * (convention 4). */
OW_API bool trex_match(TRex* exp, const char* subject);

/* True when every node trex_match() can enter from the root passes the check it makes before
 * entering one, so that matching exp never fails on a corrupt node. False, with the ERROR
 * line of the first node refused (the line trex_match() would write), when one does not; for
 * a NULL exp (EINVAL) or when memory runs out (ENOMEM). A pattern that compiles can still
 * fail here: a repetition {2,1} or {65535}. */
OW_API bool trex_validate(const TRex* exp);

/* Releases the node array and the record. NULL is ignored. */
OW_API void trex_free(TRex* exp);

/* Returns a new copy of text with a backslash before each of $ ( ) * + . ? [ \ ] ^ { | },
 * so that it compiles to a pattern matching the text literally. NULL (logged) for a NULL or
 * empty text or when memory runs out. Free with free(). */
OW_API char* trex_escape(const char* text);

#ifdef __cplusplus
}
#endif

#endif /* TINY_REX_H */
