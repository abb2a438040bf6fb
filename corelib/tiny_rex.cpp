// tiny_rex: a recursive-descent compiler into a flat array of index-linked nodes and a
// backtracking matcher over that array. The matcher passes each node "what follows it" as a
// chain of continuation frames on the stack, so that the look-ahead of a repetition or of a
// ".*" run sees past the end of a group into the rest of the pattern. Every node is
// validated as it is entered, because node arrays also come from files on disk; stack depth
// and total work are bounded because subjects come from the network.
#include "tiny_rex.h"

#include <array>
#include <cassert>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

#include "ow_internal.hpp"

static_assert(sizeof(TRexNode) == 16, "a node is the 16-byte record of the pattern files");
static_assert(offsetof(TRexNode, type) == 0);
static_assert(offsetof(TRexNode, left) == 4);
static_assert(offsetof(TRexNode, right) == 8);
static_assert(offsetof(TRexNode, next) == 12);

// Compiler and matcher helpers report under the public function the caller invoked.
#define TREX_COMPILE_ERROR(...)                                                                   \
    ::ow_log_error("trex_compile_ex", ::ow::base_name(__FILE__), static_cast<uint32_t>(__LINE__), \
                   __VA_ARGS__)
#define TREX_MATCH_ERROR(...)                                                                \
    ::ow_log_error("trex_match", ::ow::base_name(__FILE__), static_cast<uint32_t>(__LINE__), \
                   __VA_ARGS__)

namespace {

// ---------------------------------------------------------------------------------------
// Character classes of the POSIX locale, fixed here so that a program calling setlocale()
// cannot change what a stored pattern matches.
enum : uint16_t {
    kAlpha = 1 << 0,
    kCntrl = 1 << 1,
    kDigit = 1 << 2,
    kLower = 1 << 3,
    kPunct = 1 << 4,
    kSpace = 1 << 5,
    kUpper = 1 << 6,
    kXdigit = 1 << 7,
    kPrint = 1 << 8,
};

constexpr std::array<uint16_t, 256> make_ctype() {
    std::array<uint16_t, 256> t{};
    for (int c = 0; c < 256; ++c) {
        uint16_t f = 0;
        const bool upper = c >= 'A' && c <= 'Z';
        const bool lower = c >= 'a' && c <= 'z';
        const bool digit = c >= '0' && c <= '9';
        if (upper) f |= kUpper | kAlpha;
        if (lower) f |= kLower | kAlpha;
        if (digit) f |= kDigit;
        if (digit || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F')) f |= kXdigit;
        if (c < 32 || c == 127) f |= kCntrl;
        if ((c >= 9 && c <= 13) || c == ' ') f |= kSpace;
        if (c >= 32 && c <= 126) f |= kPrint;
        if (c > 32 && c <= 126 && !upper && !lower && !digit) f |= kPunct;
        t[static_cast<std::size_t>(c)] = f;
    }
    return t;
}
constexpr std::array<uint16_t, 256> kCtype = make_ctype();

constexpr bool has(unsigned char c, uint16_t flags) { return (kCtype[c] & flags) != 0; }
constexpr bool is_print(unsigned char c) { return has(c, kPrint); }
constexpr bool is_space(unsigned char c) { return has(c, kSpace); }
constexpr int fold(int c) { return (c >= 'A' && c <= 'Z') ? c + ('a' - 'A') : c; }

// The letters after a backslash that name a class; any other letter in a stored class node
// matches nothing.
constexpr bool is_class_letter(unsigned char c) {
    switch (c) {
        case 'a':
        case 'A':
        case 'c':
        case 'C':
        case 'd':
        case 'D':
        case 'l':
        case 'p':
        case 'P':
        case 's':
        case 'S':
        case 'u':
        case 'w':
        case 'W':
        case 'x':
        case 'X':
            return true;
        default:
            return false;
    }
}

bool class_letter_matches(int32_t letter, unsigned char c) {
    switch (letter) {
        case 'a':
            return has(c, kAlpha);
        case 'A':
            return !has(c, kAlpha);
        case 'c':
            return has(c, kCntrl);
        case 'C':
            return !has(c, kCntrl);
        case 'd':
            return has(c, kDigit);
        case 'D':
            return !has(c, kDigit);
        case 'l':
            return has(c, kLower);
        case 'p':
            return has(c, kPunct);
        case 'P':
            return !has(c, kPunct);
        case 's':
            return has(c, kSpace);
        case 'S':
            return !has(c, kSpace);
        case 'u':
            return has(c, kUpper);
        case 'w':
            return has(c, kAlpha | kDigit) || c == '_';
        case 'W':
            return !(has(c, kAlpha | kDigit) || c == '_');
        case 'x':
            return has(c, kXdigit);
        case 'X':
            return !has(c, kXdigit);
        default:
            return false;
    }
}

// The control characters the escapes \t \n \v \f \r stand for (codes 9 to 13).
constexpr int control_escape(unsigned char c) {
    switch (c) {
        case 'f':
            return 12;
        case 'n':
            return 10;
        case 'r':
            return 13;
        case 't':
            return 9;
        case 'v':
            return 11;
        default:
            return -1;
    }
}

// A character node is valid for the printable codes and for the five control codes the
// escapes produce, so that everything the compiler makes can also match.
constexpr bool valid_character_code(int32_t code) {
    return (code >= 32 && code <= 126) || (code >= 9 && code <= 13);
}

constexpr uint32_t pack_bounds(uint32_t min, uint32_t max) { return max | (min << 16); }
constexpr uint32_t bounds_min(int32_t right) { return static_cast<uint32_t>(right) >> 16; }
constexpr uint32_t bounds_max(int32_t right) { return static_cast<uint32_t>(right) & 0xFFFFu; }

// ---------------------------------------------------------------------------------------
// Compiler. Each parse function returns the index of the node it built, or -1 after
// logging; exp->cursor walks the wrapped text.

int32_t new_node(TRex* exp, int32_t type) {
    if (exp->nsize >= exp->nallocated) {
        // Double the array; a failed growth leaves the old array in place for trex_free().
        std::size_t capacity =
            exp->nallocated > 0 ? static_cast<std::size_t>(exp->nallocated) * 2 : 1;
        std::size_t bytes = 0;
        if (capacity > INT32_MAX || ow::mul_overflows(capacity, sizeof(TRexNode), &bytes)) {
            TREX_COMPILE_ERROR("%s", std::strerror(ENOMEM));
            return -1;
        }
        auto* grown = static_cast<TRexNode*>(ow::mem_realloc(exp->nodes, bytes));
        if (grown == nullptr) {
            TREX_COMPILE_ERROR("%s", std::strerror(ENOMEM));
            return -1;
        }
        exp->nodes = grown;
        exp->nallocated = static_cast<int32_t>(capacity);
    }
    TRexNode& n = exp->nodes[exp->nsize];
    n.type = type;
    n.left = -1;
    n.right = -1;
    n.next = -1;
    if (type == OP_EXPRESSION) n.right = exp->nsubexpr++;
    return exp->nsize++;
}

// Parses a decimal number at the cursor (which is at a digit) into *out.
bool parse_number(TRex* exp, long* out) {
    long value = 0;
    while (has(static_cast<unsigned char>(*exp->cursor), kDigit)) {
        value = value * 10 + (*exp->cursor - '0');
        if (value > INT32_MAX) {
            TREX_COMPILE_ERROR("overflow in numeric constant");
            return false;
        }
        ++exp->cursor;
    }
    *out = value;
    return true;
}

// A single character, a class letter or (outside a class) a word block.
int32_t parse_charnode(TRex* exp, bool in_class) {
    auto c = static_cast<unsigned char>(*exp->cursor);
    if (c == '\\') {
        ++exp->cursor;
        c = static_cast<unsigned char>(*exp->cursor);
        if (is_class_letter(c)) {
            ++exp->cursor;
            const int32_t n = new_node(exp, OP_CHARACTER_CLASS);
            if (n < 0) {
                TREX_COMPILE_ERROR("failed to create character class node");
                return -1;
            }
            exp->nodes[n].left = c;
            return n;
        }
        if ((c == 'b' || c == 'B') && !in_class) {
            ++exp->cursor;
            const int32_t n = new_node(exp, OP_WORD_BLOCK);
            if (n < 0) {
                TREX_COMPILE_ERROR("failed to create word block node");
                return -1;
            }
            exp->nodes[n].left = c;
            return n;
        }
        int code = control_escape(c);
        if (code < 0) {
            // An escaped byte is taken literally, but only if a character node can hold it.
            if (!is_print(c)) {
                TREX_COMPILE_ERROR("non-printable character %d found", c);
                return -1;
            }
            code = c;
        }
        ++exp->cursor;
        const int32_t n = new_node(exp, code);
        if (n < 0) {
            if (in_class) {
                TREX_COMPILE_ERROR("failed to create character node");
            } else {
                TREX_COMPILE_ERROR("Failed to create character node");
            }
        }
        return n;
    }
    if (!is_print(c)) {
        TREX_COMPILE_ERROR("non-printable character %d found", c);
        return -1;
    }
    ++exp->cursor;
    const int32_t n = new_node(exp, c);
    if (n < 0) {
        if (in_class) {
            TREX_COMPILE_ERROR("failed to create character node");
        } else {
            TREX_COMPILE_ERROR("Failed to create character node");
        }
    }
    return n;
}

// The members of "[...]" after the "[", up to and including the "]".
int32_t parse_class(TRex* exp) {
    int32_t type = OP_CLASS;
    if (*exp->cursor == '^') {
        type = OP_NON_MATCH_CLASS;
        ++exp->cursor;
    }
    const int32_t cls = new_node(exp, type);
    if (cls < 0) {
        if (type == OP_NON_MATCH_CLASS) {
            TREX_COMPILE_ERROR("failed to create non match class node");
        } else {
            TREX_COMPILE_ERROR("failed to create class node");
        }
        return -1;
    }
    if (*exp->cursor == ']') {
        TREX_COMPILE_ERROR("empty class match segment");
        return -1;
    }
    int32_t head = -1;
    int32_t tail = -1;
    int32_t pending = -1;  // the last member, which a following "-" turns into a range start
    const char* pending_at = nullptr;
    auto link = [exp, &head, &tail](int32_t member) {
        if (tail < 0) {
            head = member;
        } else {
            exp->nodes[tail].next = member;
        }
        tail = member;
    };
    while (*exp->cursor != '\0' && *exp->cursor != ']') {
        if (*exp->cursor == '-' && pending >= 0) {
            ++exp->cursor;
            if (*exp->cursor == ']') {
                TREX_COMPILE_ERROR("unfinished range: %c", *exp->cursor);
                return -1;
            }
            if (*exp->cursor == '\0') {
                TREX_COMPILE_ERROR("invalid character \\0 in class range");
                return -1;
            }
            int end;
            auto c = static_cast<unsigned char>(*exp->cursor);
            if (c == '\\') {
                ++exp->cursor;
                c = static_cast<unsigned char>(*exp->cursor);
                if (c == '\0') {
                    TREX_COMPILE_ERROR("invalid character \\0 in class range");
                    return -1;
                }
                end = control_escape(c) >= 0 ? control_escape(c) : c;
            } else if (!is_print(c)) {
                TREX_COMPILE_ERROR("letter expected");
                return -1;
            } else {
                end = c;
            }
            const int32_t start = exp->nodes[pending].type;
            if (start > end) {
                TREX_COMPILE_ERROR("invalid range [%s]", pending_at);
                return -1;
            }
            ++exp->cursor;
            const int32_t range = new_node(exp, OP_RANGE);
            if (range < 0) {
                TREX_COMPILE_ERROR("failed to create RANGE operator node");
                return -1;
            }
            exp->nodes[range].left = start;
            exp->nodes[range].right = end;
            link(range);
            pending = -1;
        } else {
            if (pending >= 0) link(pending);
            pending_at = exp->cursor;
            pending = parse_charnode(exp, true);
            if (pending < 0) return -1;
        }
    }
    if (pending >= 0) link(pending);
    if (*exp->cursor != ']') {
        TREX_COMPILE_ERROR("failed to find expected character [%c]", ']');
        return -1;
    }
    ++exp->cursor;
    exp->nodes[cls].left = head;
    return cls;
}

int32_t parse_list(TRex* exp, int nesting);

// One element and the repetition that may follow it.
int32_t parse_element(TRex* exp, int nesting) {
    int32_t n = -1;
    switch (*exp->cursor) {
        case '*':
        case '+':
        case '?':
        case '{':
            return -1;
        case '$':
            ++exp->cursor;
            n = new_node(exp, OP_EOL);
            if (n < 0) {
                TREX_COMPILE_ERROR("failed to create EOL node");
                return -1;
            }
            break;
        case '(': {
            if (nesting >= TREX_MAX_NESTING) {
                TREX_COMPILE_ERROR("groups nested deeper than %d", TREX_MAX_NESTING);
                return -1;
            }
            ++exp->cursor;
            if (*exp->cursor == '?') {
                TREX_COMPILE_ERROR("failed to find expected character [%c]", ':');
                return -1;
            }
            n = new_node(exp, OP_EXPRESSION);
            if (n < 0) {
                TREX_COMPILE_ERROR("Failed to create 'expression' node");
                return -1;
            }
            const int32_t list = parse_list(exp, nesting + 1);
            if (list < 0) {
                TREX_COMPILE_ERROR("failed to parse through sub expression");
                return -1;
            }
            exp->nodes[n].left = list;
            if (*exp->cursor != ')') {
                TREX_COMPILE_ERROR("failed to find expected character [%c]", ')');
                return -1;
            }
            ++exp->cursor;
            break;
        }
        case '.':
            ++exp->cursor;
            if (*exp->cursor == '*') {
                ++exp->cursor;
                n = new_node(exp, OP_ANY_RUN);
            } else {
                n = new_node(exp, OP_ANY);
            }
            if (n < 0) {
                TREX_COMPILE_ERROR("failed to create ANY (dot) node");
                return -1;
            }
            break;
        case '[':
            ++exp->cursor;
            n = parse_class(exp);
            if (n < 0) {
                TREX_COMPILE_ERROR("failed to parse class");
                return -1;
            }
            break;
        default:
            n = parse_charnode(exp, false);
            if (n < 0) return -1;
            break;
    }

    uint32_t min = 0;
    uint32_t max = 0;
    switch (*exp->cursor) {
        case '*':
            min = 0;
            max = TREX_UNBOUNDED;
            ++exp->cursor;
            break;
        case '+':
            min = 1;
            max = TREX_UNBOUNDED;
            ++exp->cursor;
            break;
        case '?':
            min = 0;
            max = 1;
            ++exp->cursor;
            break;
        case '{': {
            ++exp->cursor;
            if (!has(static_cast<unsigned char>(*exp->cursor), kDigit)) {
                TREX_COMPILE_ERROR("number expected");
                return -1;
            }
            long first = 0;
            if (!parse_number(exp, &first)) return -1;
            if (first > TREX_UNBOUNDED) {
                TREX_COMPILE_ERROR("number exceeds maximum value %d", TREX_UNBOUNDED);
                return -1;
            }
            min = static_cast<uint32_t>(first);
            if (*exp->cursor == '}') {
                max = min;
                ++exp->cursor;
            } else if (*exp->cursor == ',') {
                ++exp->cursor;
                max = TREX_UNBOUNDED;
                if (has(static_cast<unsigned char>(*exp->cursor), kDigit)) {
                    long second = 0;
                    if (!parse_number(exp, &second)) return -1;
                    if (second > TREX_UNBOUNDED) {
                        TREX_COMPILE_ERROR("number %ld exceeds maximum value %d", second,
                                           TREX_UNBOUNDED);
                        return -1;
                    }
                    max = static_cast<uint32_t>(second);
                }
                if (*exp->cursor != '}') {
                    TREX_COMPILE_ERROR("expected character '}' not found");
                    return -1;
                }
                ++exp->cursor;
            } else {
                TREX_COMPILE_ERROR(", or } expected");
                return -1;
            }
            break;
        }
        default:
            return n;
    }
    const int32_t greedy = new_node(exp, OP_GREEDY);
    if (greedy < 0) {
        TREX_COMPILE_ERROR("error creating OP_GREEDY node");
        return -1;
    }
    exp->nodes[greedy].left = n;
    exp->nodes[greedy].right = static_cast<int32_t>(pack_bounds(min, max));
    return greedy;
}

// Elements linked by next until the end of the text or a "|", ")", "*" or "+". Iterative, so
// a long pattern costs no stack.
int32_t parse_sequence(TRex* exp, int nesting) {
    const int32_t head = parse_element(exp, nesting);
    if (head < 0) return -1;
    int32_t tail = head;
    for (;;) {
        const char c = *exp->cursor;
        if (c == '\0' || c == '|' || c == ')' || c == '*' || c == '+') return head;
        const int32_t e = parse_element(exp, nesting);
        if (e < 0) return -1;
        exp->nodes[tail].next = e;
        tail = e;
    }
}

// An optional "^", a sequence, and for each "|" an OR node whose right operand is the next
// list: a|b|c becomes OR(a, OR(b, c)). Built in a loop so that many alternatives cost no
// stack.
int32_t parse_list(TRex* exp, int nesting) {
    int32_t first_or = -1;
    int32_t last_or = -1;
    for (;;) {
        int32_t bol = -1;
        if (*exp->cursor == '^') {
            ++exp->cursor;
            bol = new_node(exp, OP_BOL);
            if (bol < 0) {
                TREX_COMPILE_ERROR("failed to create beginning of line node");
                return -1;
            }
        }
        int32_t seq = parse_sequence(exp, nesting);
        if (seq < 0) return -1;
        if (bol >= 0) {
            exp->nodes[bol].next = seq;
            seq = bol;
        }
        if (*exp->cursor != '|') {
            if (last_or < 0) return seq;
            exp->nodes[last_or].right = seq;
            return first_or;
        }
        ++exp->cursor;
        const int32_t alt = new_node(exp, OP_OR);
        if (alt < 0) {
            TREX_COMPILE_ERROR("failed to create 'or' node");
            return -1;
        }
        exp->nodes[alt].left = seq;
        if (last_or < 0) {
            first_or = alt;
        } else {
            exp->nodes[last_or].right = alt;
        }
        last_or = alt;
    }
}

// The text actually compiled: ".*" in front unless anchored or already there, ".*$" behind
// unless anchored at the end.
char* wrap_pattern(std::string_view pattern) {
    const bool prefix = !(pattern.starts_with('^') || pattern.starts_with(".*"));
    const bool suffix = !pattern.ends_with('$');
    std::size_t size = 0;
    if (ow::add_overflows(pattern.size(), 6, &size)) return nullptr;
    auto* text = static_cast<char*>(ow::mem_malloc(size));
    if (text == nullptr) return nullptr;
    char* out = text;
    if (prefix) out = static_cast<char*>(std::memcpy(out, ".*", 2)) + 2;
    out = static_cast<char*>(std::memcpy(out, pattern.data(), pattern.size())) + pattern.size();
    if (suffix) out = static_cast<char*>(std::memcpy(out, ".*$", 3)) + 3;
    *out = '\0';
    return text;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Validation: the one gate every node passes before the matcher uses its fields.

// report: false when the caller only wants the verdict (preparing a pattern), not a line.
static bool __trex_node_is_valid(const TRex* exp, const TRexNode* node, bool report) {
    if (exp == nullptr) {
        if (report) OW_ERROR("TRex* is NULL");
        return false;
    }
    if (node == nullptr) {
        if (report) OW_ERROR("node is NULL");
        return false;
    }
    const int32_t type = node->type;
    const bool left_is_char =
        type == OP_RANGE || type == OP_WORD_BLOCK || type == OP_CHARACTER_CLASS;
    if (!left_is_char && node->left >= 0 && node->left >= exp->nallocated) {
        if (report)
            OW_ERROR("corrupt regex: node->left is out of range %d > %d", node->left,
                     exp->nallocated);
        return false;
    }
    const bool right_is_value = type == OP_GREEDY || type == OP_RANGE;
    if (!right_is_value && node->right >= 0 && node->right >= exp->nallocated) {
        if (report)
            OW_ERROR("corrupt regex: node->right is out of range %d > %d", node->right,
                     exp->nallocated);
        return false;
    }
    if (node->next >= 0 && node->next >= exp->nallocated) {
        if (report)
            OW_ERROR("corrupt regex: node->next is out of range %d > %d", node->next,
                     exp->nallocated);
        return false;
    }
    switch (type) {
        case OP_GREEDY: {
            // -1 is "unused"; any other bit pattern is a pair of bounds.
            if (node->right == -1) {
                if (report) OW_ERROR("greedy operator must have value in 'right'");
                return false;
            }
            if (node->left < 0) {
                if (report) OW_ERROR("greedy operator must have value in 'left'");
                return false;
            }
            const uint32_t min = bounds_min(node->right);
            const uint32_t max = bounds_max(node->right);
            if (min > max) {
                if (report)
                    OW_ERROR("greedy operator range %d - %d is invalid", static_cast<int>(min),
                             static_cast<int>(max));
                return false;
            }
            return true;
        }
        case OP_OR:
            if (node->left < 0) {
                if (report) OW_ERROR("OR operator must have value in 'left'");
                return false;
            }
            if (node->right < 0) {
                if (report) OW_ERROR("OR operator must have value in 'right'");
                return false;
            }
            return true;
        case OP_EXPRESSION:
        case OP_EXPRESSION_ALT:
            if (node->left < 0) {
                if (report) OW_ERROR("expr () operator must have value in 'left'");
                return false;
            }
            return true;
        case OP_CLASS:
        case OP_CHARACTER_CLASS:
        case OP_NON_MATCH_CLASS:
            if (node->left < 0) {
                if (report) OW_ERROR("class operator must have value in 'left'");
                return false;
            }
            return true;
        case OP_RANGE:
            if (node->left < 0) {
                if (report) OW_ERROR("range operator must have value in 'left'");
                return false;
            }
            if (node->right < 0) {
                if (report) OW_ERROR("range operator must have value in 'right'");
                return false;
            }
            return true;
        case OP_ANY:
        case OP_EOL:
        case OP_BOL:
        case OP_WORD_BLOCK:
        case OP_ANY_RUN:
            return true;
        case OP_UNUSED:
            return false;
        default:
            return valid_character_code(type);
    }
}

namespace {

// Marks walk_entered() leaves on the nodes it visited.
constexpr uint8_t kChecked = 1;   // passed validation
constexpr uint8_t kFollowed = 2;  // entered as part of a sequence, its links followed

// Scratch for walk_entered(): a stack of pending visits, then a mark per node. Every node is
// followed once and adds at most three visits, so 3 * count + 1 stack entries suffice.
std::size_t walk_scratch_bytes(int32_t count) {
    const auto n = static_cast<std::size_t>(count);
    return (3 * n + 1) * sizeof(uint32_t) + n;
}

const uint8_t* walk_marks(const void* scratch, int32_t count) {
    return reinterpret_cast<const uint8_t*>(static_cast<const uint32_t*>(scratch) +
                                            3 * static_cast<std::size_t>(count) + 1);
}

// Visits, from the root, every node the matcher can enter: the next node of each sequence
// node, the operands of repetitions, alternatives and groups, and the first member of a class
// (the further members are read but never entered, so they are not checked here either).
// False at the first node refused. scratch holds walk_scratch_bytes(nallocated) bytes; on
// success walk_marks() of it tells which nodes were visited.
bool walk_entered(const TRex* exp, void* scratch, bool report) {
    const int32_t count = exp->nodes != nullptr ? exp->nallocated : 0;
    if (count <= 0) return __trex_node_is_valid(exp, nullptr, report);
    const auto n_nodes = static_cast<std::size_t>(count);
    auto* stack = static_cast<uint32_t*>(scratch);
    auto* marks = reinterpret_cast<uint8_t*>(stack + 3 * n_nodes + 1);
    std::memset(marks, 0, n_nodes);
    std::size_t top = 0;
    // An entry is a node index times two, plus one when the node is followed as part of a
    // sequence rather than read as a class member.
    const auto push = [stack, &top](int32_t i, bool sequence) {
        if (i >= 0) stack[top++] = static_cast<uint32_t>(i) * 2u + (sequence ? 1u : 0u);
    };
    push(0, true);
    while (top > 0) {
        const uint32_t entry = stack[--top];
        const auto i = static_cast<int32_t>(entry / 2);
        assert(i < count);  // every pushed index passed its parent's range checks
        const TRexNode& n = exp->nodes[i];
        if ((marks[i] & kChecked) == 0) {
            if (!__trex_node_is_valid(exp, &n, report)) return false;
            marks[i] |= kChecked;
        }
        if ((entry & 1u) == 0 || (marks[i] & kFollowed) != 0) continue;
        marks[i] |= kFollowed;
        push(n.next, true);
        switch (n.type) {
            case OP_GREEDY:
            case OP_EXPRESSION:
            case OP_EXPRESSION_ALT:
                push(n.left, true);
                break;
            case OP_OR:
                push(n.left, true);
                push(n.right, true);
                break;
            case OP_CLASS:
            case OP_NON_MATCH_CLASS:
                push(n.left, false);
                break;
            default:
                break;
        }
    }
    return true;
}

}  // namespace

namespace {

// ---------------------------------------------------------------------------------------
// Prepared facts. A pattern made by trex_compile_ex() or read by trs_next() carries, behind
// the last node of its array and in the same block (so whoever frees the nodes frees them
// too), what the matcher would otherwise rediscover on every call: that every node it can
// enter is valid, which bytes each class takes, which bytes a match can begin with, and
// literal text a matching subject must end with or contain. The record's cursor, unused once
// compilation ends, points at them. A record whose cursor does not point just behind its own
// array takes the plain path, which checks each node as it enters it. The facts only turn a
// subject down before matching starts or replace a walk by a lookup that counts the same
// steps, so both paths give the same answer and hit TREX_MAX_STEPS at the same point.

constexpr uint32_t kPreparedMagic = 0x54526578;
constexpr int32_t kMaxPreparedNodes = 16384;  // beyond this the facts cost more than they save
constexpr int32_t kMaxMemberVisits = 65536;   // bounds the class work for a hostile array
constexpr int kMaxLiteral = 32;
constexpr int kMaxFirstDepth = 32;  // nodes looked through for the first byte

struct byte_set {
    uint64_t bits[4];

    bool has(unsigned char c) const { return ((bits[c >> 6] >> (c & 63)) & 1) != 0; }
    void add(unsigned char c) { bits[c >> 6] |= uint64_t{1} << (c & 63); }
    void merge(const byte_set& o) {
        for (int k = 0; k < 4; ++k) bits[k] |= o.bits[k];
    }
};

// What is known of one node. Set indexes refer to the prepared byte sets.
struct node_facts {
    int32_t members;       // a class: the bytes some member takes; else -1
    int32_t miss_steps;    // a class: the steps its member walk counts when none takes the byte
    int32_t accept;        // a single-position byte node: the bytes it takes; else -1
    int32_t first_enters;  // the nodes first_steps_of() enters from here
    int32_t first_set;     // what first_steps_of() finds from here, as a set (below)
    int32_t byte_alternatives;  // an OR whose alternatives are all lone free byte nodes
};
// first_set when first_steps_of() from the node is not tabulated, or when it finds nothing
// (so never excludes a position).
constexpr int32_t kFirstUnknown = -1;
constexpr int32_t kFirstNone = -2;

struct prepared {
    uint32_t magic;
    int32_t count;          // the nallocated it was built for
    const TRexNode* nodes;  // the array it lies behind
    bool exact;             // built for an exact case mode
    bool has_start;         // a match must begin with a byte of start
    uint8_t suffix_len;     // a matching subject ends with suffix
    uint8_t required_len;   // a matching subject contains required
    byte_set start;
    char suffix[kMaxLiteral];  // folded unless exact
    char required[kMaxLiteral];

    // Behind the header: node_facts[count], then the byte sets (at most three per node), then
    // the walk's scratch.
    node_facts* facts() { return reinterpret_cast<node_facts*>(this + 1); }
    const node_facts* facts() const { return reinterpret_cast<const node_facts*>(this + 1); }
    byte_set* sets() { return reinterpret_cast<byte_set*>(facts() + count); }
    const byte_set* sets() const { return reinterpret_cast<const byte_set*>(facts() + count); }
};

// The facts start right behind the last node and each part starts where the one before ends.
static_assert(alignof(prepared) <= sizeof(TRexNode));
static_assert(sizeof(prepared) % alignof(node_facts) == 0);
static_assert(sizeof(node_facts) % alignof(byte_set) == 0);
static_assert(sizeof(byte_set) % alignof(uint32_t) == 0);

// Whether one class member takes byte c.
bool member_matches(const TRexNode& member, unsigned char c, bool exact) {
    if (member.type == OP_RANGE) {
        const int ch = exact ? c : fold(c);
        const int lo = exact ? member.left : fold(member.left);
        const int hi = exact ? member.right : fold(member.right);
        return lo <= ch && ch <= hi;
    }
    if (member.type == OP_CHARACTER_CLASS) return class_letter_matches(member.left, c);
    return member.type == c;
}

constexpr bool is_character(int32_t type) { return type >= 0 && type < 256; }

constexpr bool is_compound(int32_t type) {
    return type == OP_GREEDY || type == OP_OR || type == OP_EXPRESSION ||
           type == OP_EXPRESSION_ALT || type == OP_ANY_RUN;
}

// The bytes a single-position node takes (a subject never holds NUL before its end); false
// for nodes that take no byte or whose answer depends on the position.
bool accepted_bytes(const prepared& p, int32_t i, byte_set* out) {
    const TRexNode& n = p.nodes[i];
    byte_set set{};
    for (int c = 1; c < 256; ++c) {
        const auto b = static_cast<unsigned char>(c);
        bool yes = false;
        if (is_character(n.type)) {
            yes = p.exact ? n.type == c : fold(n.type) == fold(c);
        } else if (n.type == OP_ANY) {
            yes = true;
        } else if (n.type == OP_CHARACTER_CLASS) {
            yes = class_letter_matches(n.left, b);
        } else if (n.type == OP_CLASS || n.type == OP_NON_MATCH_CLASS) {
            yes = p.sets()[p.facts()[i].members].has(b) == (n.type == OP_CLASS);
        } else {
            return false;
        }
        if (yes) set.add(b);
    }
    out->merge(set);
    return true;
}

// Adds to out the bytes that any match of node i, begun at the start of the subject, consumes
// first; false when no such set is known. alone: node i is matched by itself, as the operand
// of a repetition is, rather than followed by the rest of its sequence. Only ever asked at the
// start, where "^" consumes nothing and always holds.
bool start_bytes(const prepared& p, int32_t i, bool alone, int depth, byte_set* out) {
    if (depth > kMaxFirstDepth) return false;
    const TRexNode& n = p.nodes[i];
    switch (n.type) {
        case OP_BOL:
            return !alone && n.next >= 0 && start_bytes(p, n.next, false, depth + 1, out);
        case OP_EXPRESSION:
        case OP_EXPRESSION_ALT:
            return start_bytes(p, n.left, false, depth + 1, out);
        case OP_OR:
            return start_bytes(p, n.left, false, depth + 1, out) &&
                   start_bytes(p, n.right, false, depth + 1, out);
        case OP_GREEDY:
            // The first repetition is required, and it starts where the node does.
            return bounds_min(n.right) > 0 && start_bytes(p, n.left, true, depth + 1, out);
        default:
            return accepted_bytes(p, i, out);
    }
}

// Copies up to kMaxLiteral characters of the run of len character nodes starting at node i,
// skipping the first skip of them.
uint8_t copy_run(const prepared& p, int32_t i, int len, int skip, char* out) {
    uint8_t n = 0;
    for (int k = 0; k < len && n < kMaxLiteral; ++k, i = p.nodes[i].next) {
        if (k < skip) continue;
        const int32_t c = p.nodes[i].type;
        out[n++] = static_cast<char>(p.exact ? c : fold(c));
    }
    return n;
}

// The literal runs of the whole pattern's own sequence: every node of it consumes its part
// of the subject in order, so the run just before a final "$" ends every matching subject
// and any other run occurs in it.
void find_literals(prepared* p) {
    struct run {
        int32_t first = -1;
        int len = 0;
    };
    run current, longest, suffix;
    int32_t walked = 0;
    for (int32_t i = p->nodes[0].left; i >= 0; i = p->nodes[i].next) {
        if (++walked > p->count) return;  // a sequence that loops never ends a match
        const TRexNode& n = p->nodes[i];
        if (is_character(n.type)) {
            if (current.len == 0) current.first = i;
            ++current.len;
            continue;
        }
        if (n.type == OP_EOL && n.next < 0) suffix = current;
        if (current.len > longest.len) longest = current;
        current = run{};
    }
    if (current.len > longest.len) longest = current;
    if (suffix.len > 0) {
        p->suffix_len =
            copy_run(*p, suffix.first, suffix.len,
                     suffix.len > kMaxLiteral ? suffix.len - kMaxLiteral : 0, p->suffix);
    }
    if (longest.len > 0 && longest.first != suffix.first) {
        p->required_len = copy_run(*p, longest.first, longest.len, 0, p->required);
    }
}

// Node types a step takes or refuses by the byte alone, without counting steps.
constexpr bool is_free_byte_node(int32_t type) {
    return is_character(type) || type == OP_ANY || type == OP_CHARACTER_CLASS;
}

// Replays first_steps_of() from node i: the nodes it enters, and what it finds as one set
// when every node found is a free byte node.
void tabulate_first_steps(prepared* p, int32_t i, int32_t* nsets) {
    const TRexNode* nodes = p->nodes;
    node_facts& f = p->facts()[i];
    int32_t enters = 1;
    const TRexNode* node = &nodes[i];
    if (node->type == OP_EXPRESSION || node->type == OP_EXPRESSION_ALT) {
        node = &nodes[node->left];
        ++enters;
    }
    int found = 0;
    bool free_only = true;
    byte_set set{};
    const auto add = [&](const TRexNode* n) {
        ++found;
        free_only = free_only && is_free_byte_node(n->type) &&
                    accepted_bytes(*p, static_cast<int32_t>(n - nodes), &set);
    };
    bool empty = false;
    while (node->type == OP_OR && found < 4) {
        const TRexNode* left = &nodes[node->left];
        ++enters;
        if (is_compound(left->type)) {
            empty = true;
            break;
        }
        add(left);
        node = &nodes[node->right];
        ++enters;
    }
    if (!empty && (is_compound(node->type) || found == 4)) empty = true;
    if (!empty) add(node);
    f.first_enters = enters;
    if (empty) {
        f.first_set = kFirstNone;
    } else if (free_only) {
        f.first_set = *nsets;
        p->sets()[(*nsets)++] = set;
    }
}

// Whether every alternative of the OR chain at node i is a single free byte node that ends
// its sequence, so that match_or() only steps each of them.
bool only_byte_alternatives(const prepared& p, int32_t i) {
    const TRexNode* alt = &p.nodes[i];
    for (int32_t walked = 0; walked < p.count; ++walked) {
        const TRexNode& left = p.nodes[alt->left];
        if (!is_free_byte_node(left.type) || left.next >= 0) return false;
        const TRexNode& right = p.nodes[alt->right];
        if (right.type == OP_OR && right.next < 0) {
            alt = &right;
            continue;
        }
        return is_free_byte_node(right.type) && right.next < 0;
    }
    return false;  // a chain that loops
}

std::size_t prepared_bytes(int32_t count) {
    const auto n = static_cast<std::size_t>(count);
    return sizeof(prepared) + n * (sizeof(node_facts) + 3 * sizeof(byte_set)) +
           walk_scratch_bytes(count);
}

// Builds the facts behind exp's node array, which has room for prepared_bytes(nallocated)
// more bytes. Leaves cursor NULL, and the pattern on the plain path, when the array is too
// large, holds a node the matcher would refuse, or has classes too long to tabulate.
void prepare(TRex* exp) {
    exp->cursor = nullptr;
    const int32_t count = exp->nallocated;
    if (exp->nodes == nullptr || count <= 0 || count > kMaxPreparedNodes) return;
    auto* p = new (exp->nodes + count) prepared{};
    p->count = count;
    p->nodes = exp->nodes;
    p->exact = exp->case_mode != 0;
    node_facts* facts = p->facts();
    byte_set* sets = p->sets();
    void* scratch = sets + 3 * static_cast<std::size_t>(count);
    if (!walk_entered(exp, scratch, false)) return;
    const uint8_t* marks = walk_marks(scratch, count);

    int32_t nsets = 0;
    int32_t visits = 0;
    for (int32_t i = 0; i < count; ++i) {
        facts[i] = node_facts{-1, 0, -1, 0, kFirstUnknown, false};
        const TRexNode& n = exp->nodes[i];
        if ((marks[i] & kChecked) == 0 || (n.type != OP_CLASS && n.type != OP_NON_MATCH_CLASS)) {
            continue;
        }
        // The same walk as class_matches(), over every byte at once.
        byte_set set{};
        int32_t member = n.left;
        int32_t walked = 0;
        for (; walked < count; ++walked) {
            if (++visits > kMaxMemberVisits) return;
            const TRexNode& m = exp->nodes[member];
            for (int c = 1; c < 256; ++c) {
                if (member_matches(m, static_cast<unsigned char>(c), p->exact)) {
                    set.add(static_cast<unsigned char>(c));
                }
            }
            member = m.next;
            if (member < 0 || member >= count) break;
        }
        facts[i].members = nsets;
        facts[i].miss_steps = walked;
        sets[nsets++] = set;
    }

    for (int32_t i = 0; i < count; ++i) {
        if ((marks[i] & kChecked) == 0) continue;
        byte_set set{};
        if (accepted_bytes(*p, i, &set)) {
            facts[i].accept = nsets;
            sets[nsets++] = set;
        }
    }
    for (int32_t i = 0; i < count; ++i) {
        if ((marks[i] & kFollowed) == 0) continue;
        tabulate_first_steps(p, i, &nsets);
        if (exp->nodes[i].type == OP_OR) facts[i].byte_alternatives = only_byte_alternatives(*p, i);
    }

    // The whole pattern is the sequence of a root group; any other root is matched as it is
    // and tells nothing about the subject here.
    const int32_t root = exp->nodes[0].type;
    if (root == OP_EXPRESSION || root == OP_EXPRESSION_ALT) {
        byte_set start{};
        if (start_bytes(*p, exp->nodes[0].left, false, 0, &start)) {
            p->has_start = true;
            p->start = start;
        }
        find_literals(p);
    }
    p->magic = kPreparedMagic;
    exp->cursor = reinterpret_cast<const char*>(p);
}

// The facts of exp, or nullptr for the plain path.
const prepared* prepared_of(const TRex* exp) {
    if (exp->cursor == nullptr || exp->nodes == nullptr || exp->nallocated <= 0 ||
        exp->cursor != reinterpret_cast<const char*>(exp->nodes + exp->nallocated)) {
        return nullptr;
    }
    const auto* p = reinterpret_cast<const prepared*>(exp->cursor);
    if (p->magic != kPreparedMagic || p->nodes != exp->nodes || p->count != exp->nallocated ||
        p->exact != (exp->case_mode != 0)) {
        return nullptr;
    }
    return p;
}

bool ends_with(const prepared& p, const char* bol, const char* eol) {
    if (eol - bol < p.suffix_len) return false;
    const char* s = eol - p.suffix_len;
    for (int k = 0; k < p.suffix_len; ++k) {
        const auto c = static_cast<unsigned char>(s[k]);
        if ((p.exact ? c : fold(c)) != static_cast<unsigned char>(p.suffix[k])) return false;
    }
    return true;
}

bool contains(const prepared& p, const char* bol, const char* eol) {
    const std::ptrdiff_t n = p.required_len;
    const auto first = static_cast<unsigned char>(p.required[0]);
    for (const char* s = bol; eol - s >= n; ++s) {
        const auto c = static_cast<unsigned char>(*s);
        if ((p.exact ? c : fold(c)) != first) continue;
        std::ptrdiff_t k = 1;
        for (; k < n; ++k) {
            const auto d = static_cast<unsigned char>(s[k]);
            if ((p.exact ? d : fold(d)) != static_cast<unsigned char>(p.required[k])) break;
        }
        if (k == n) return true;
    }
    return false;
}

// False when the facts alone rule the subject out.
bool may_match(const prepared& p, const char* bol, const char* eol) {
    if (p.has_start && !p.start.has(static_cast<unsigned char>(*bol))) return false;
    if (p.suffix_len > 0 && !ends_with(p, bol, eol)) return false;
    return p.required_len == 0 || contains(p, bol, eol);
}

}  // namespace

namespace {

// ---------------------------------------------------------------------------------------
// Matcher.

// What follows a node: the sequence starting at node (at the given expression depth), and
// after it whatever up describes. nullptr means nothing follows.
struct cont {
    int32_t node;
    int32_t depth;
    const cont* up;
};

struct matcher {
    TRex* exp;
    const prepared* prep;               // nullptr: the plain path
    const node_facts* facts = nullptr;  // prep's, kept at hand
    const byte_set* sets = nullptr;
    const TRexNode* nodes;
    int32_t count;  // nallocated: every index must be below it
    const char* bol;
    const char* eol;
    bool exact;
    long steps = 0;
    int recursion = 0;
    // Set by a corrupt node or an exceeded limit: from then on every frame fails, so the
    // match unwinds at once and reports one line, not one per backtracking attempt.
    bool abandoned = false;
    // Nodes already found valid in this match (the first kCheckedBits of them): their fields
    // cannot change while it runs, so checking them again on every backtracking step only
    // costs time.
    static constexpr int32_t kCheckedBits = 4096;
    uint64_t checked[kCheckedBits / 64];

    // Steps past every limit as well, so that a prepared match sees both conditions in the
    // one comparison it makes on entering a node.
    void abandon() {
        abandoned = true;
        steps = 2 * TREX_MAX_STEPS;
    }

    matcher(TRex* e, const prepared* p, const char* subject, const char* end)
        : exp(e),
          prep(p),
          nodes(e->nodes),
          count(e->nodes != nullptr ? e->nallocated : 0),
          bol(subject),
          eol(end),
          exact(e->case_mode != 0) {
        if (prep != nullptr) {
            facts = prep->facts();
            sets = prep->sets();
            return;  // checked is only used on the plain path
        }
        // Only the words a pattern of this size can use need clearing.
        const int32_t used = count < kCheckedBits ? (count > 0 ? count : 0) : kCheckedBits;
        std::memset(checked, 0, sizeof(uint64_t) * static_cast<std::size_t>((used + 63) / 64));
    }
};

// A fast, conservative form of the validation for the shapes the compiler produces: true
// only for nodes the full check would also accept. Anything else takes the full check, which
// reports what is wrong.
inline bool plainly_valid(const TRexNode& n, int32_t count) {
    const auto index = [count](int32_t v) { return v >= 0 && v < count; };
    if (n.next != -1 && !index(n.next)) return false;
    switch (n.type) {
        case OP_GREEDY:
            return index(n.left) && n.right != -1 && bounds_min(n.right) <= bounds_max(n.right);
        case OP_OR:
            return index(n.left) && index(n.right);
        case OP_EXPRESSION:
        case OP_EXPRESSION_ALT:
            return index(n.left) && (n.right == -1 || index(n.right));
        case OP_CLASS:
        case OP_NON_MATCH_CLASS:
            return index(n.left) && n.right == -1;
        case OP_CHARACTER_CLASS:
        case OP_WORD_BLOCK:
            return n.left >= 0 && n.right == -1;
        case OP_RANGE:
            return n.left >= 0 && n.right >= 0;
        case OP_ANY:
        case OP_EOL:
        case OP_BOL:
        case OP_ANY_RUN:
            return n.left == -1 && n.right == -1;
        default:
            return valid_character_code(n.type) && n.left == -1 && n.right == -1;
    }
}

const TRexNode* enter_slow(matcher& m, int32_t i) {
    if (m.abandoned) return nullptr;
    if (m.steps > TREX_MAX_STEPS) {
        TREX_MATCH_ERROR("match abandoned after %ld steps", TREX_MAX_STEPS);
        m.abandon();
        return nullptr;
    }
    const TRexNode* node = (i >= 0 && i < m.count) ? &m.nodes[i] : nullptr;
    if ((node == nullptr || !plainly_valid(*node, m.count)) &&
        !__trex_node_is_valid(m.exp, node, true)) {
        TREX_MATCH_ERROR("%s", std::strerror(EINVAL));
        m.abandon();
        return nullptr;
    }
    if (i < matcher::kCheckedBits) m.checked[i / 64] |= uint64_t{1} << (i % 64);
    return node;
}

// Validates node i before its fields are used; nullptr ends the match.
template <bool kPrep>
inline const TRexNode* enter(matcher& m, int32_t i) {
    ++m.steps;
    if constexpr (kPrep) {
        // Every node the match can reach passed the check when the pattern was prepared.
        if (m.steps <= TREX_MAX_STEPS) return &m.nodes[i];
        return enter_slow(m, i);
    }
    // i < count first: the words of checked beyond the pattern's size are never cleared.
    if (i >= 0 && i < m.count && i < matcher::kCheckedBits &&
        (m.checked[i / 64] >> (i % 64) & 1) != 0 && m.steps <= TREX_MAX_STEPS && !m.abandoned) {
        return &m.nodes[i];
    }
    return enter_slow(m, i);
}

bool class_matches(matcher& m, const TRexNode& node, unsigned char c) {
    if (enter<false>(m, node.left) == nullptr) return false;
    int32_t i = node.left;
    int32_t walked = 0;
    for (; walked < m.count; ++walked) {
        const TRexNode& member = m.nodes[i];
        if (member_matches(member, c, m.exact)) return true;
        i = member.next;
        if (i < 0 || i >= m.count) break;
    }
    m.steps += walked;  // a long member chain costs budget like any other walk
    return false;
}

const char* step_operator(matcher& m, const TRexNode& node, const char* s);

// One single-position node: the position after it, or nullptr. Literal characters, by far
// the most common nodes, are compared here without a call.
// A prepared byte node, whose facts f say what it takes.
inline const char* step_byte(matcher& m, const TRexNode& node, const node_facts& f, const char* s) {
    if (s >= m.eol) return nullptr;
    const auto c = static_cast<unsigned char>(*s);
    if (f.members >= 0) {
        // A class: count its member walk as class_matches() does.
        if (enter<true>(m, node.left) == nullptr) return nullptr;
        if (!m.sets[f.members].has(c)) m.steps += f.miss_steps;
    }
    return m.sets[f.accept].has(c) ? s + 1 : nullptr;
}

template <bool kPrep>
inline const char* step(matcher& m, const TRexNode& node, const char* s) {
    if (node.type >= 0 && node.type < 256) {
        if (s >= m.eol) return nullptr;
        const auto c = static_cast<unsigned char>(*s);
        if (m.exact) return node.type == c ? s + 1 : nullptr;
        return fold(node.type) == fold(c) ? s + 1 : nullptr;
    }
    if constexpr (kPrep) {
        const node_facts& f = m.facts[&node - m.nodes];
        if (f.accept >= 0) return step_byte(m, node, f, s);
    }
    return step_operator(m, node, s);
}

const char* step_operator(matcher& m, const TRexNode& node, const char* s) {
    switch (node.type) {
        case OP_ANY:
            return s < m.eol ? s + 1 : nullptr;
        case OP_CHARACTER_CLASS:
            return s < m.eol && class_letter_matches(node.left, static_cast<unsigned char>(*s))
                       ? s + 1
                       : nullptr;
        case OP_CLASS:
        case OP_NON_MATCH_CLASS: {
            if (s >= m.eol) return nullptr;
            const bool member = class_matches(m, node, static_cast<unsigned char>(*s));
            if (m.abandoned) return nullptr;
            return member == (node.type == OP_CLASS) ? s + 1 : nullptr;
        }
        case OP_BOL:
            return s == m.bol ? s : nullptr;
        case OP_EOL:
            return s == m.eol ? s : nullptr;
        case OP_WORD_BLOCK: {
            if (s >= m.eol) return s;
            const auto here = static_cast<unsigned char>(s[0]);
            const auto after = static_cast<unsigned char>(s[1]);  // s < eol, so s[1] exists
            const bool edge = (s == m.bol && !is_space(here)) || is_space(here) != is_space(after);
            return edge == (node.left == 'b') ? s + 1 : nullptr;
        }
        default:
            return nullptr;  // a stray range node
    }
}

template <bool kPrep>
[[gnu::always_inline]] inline const char* match_compound(matcher& m, const TRexNode& node,
                                                         const char* s, int32_t depth,
                                                         const cont* after);

// Matches the sequence starting at node i and then whatever up holds; returns the final
// position. Single-position nodes are walked in a loop; only compound nodes recurse.
template <bool kPrep>
const char* match_seq(matcher& m, int32_t i, const char* s, int32_t depth, const cont* up) {
    for (;;) {
        const TRexNode* node = enter<kPrep>(m, i);
        if (node == nullptr) return nullptr;
        if (is_compound(node->type)) {
            const cont rest{node->next, depth, up};
            return match_compound<kPrep>(m, *node, s, depth, node->next >= 0 ? &rest : up);
        }
        s = step<kPrep>(m, *node, s);
        if (s == nullptr) return nullptr;
        if (node->next >= 0) {
            i = node->next;
        } else if (up != nullptr) {
            i = up->node;
            depth = up->depth;
            up = up->up;
        } else {
            return s;
        }
    }
}

template <bool kPrep>
const char* run(matcher& m, const cont* k, const char* s) {
    return k == nullptr ? s : match_seq<kPrep>(m, k->node, s, k->depth, k->up);
}

// Node i alone, with nothing after it: one repetition of a greedy operand.
template <bool kPrep>
const char* match_one(matcher& m, int32_t i, const char* s, int32_t depth) {
    const TRexNode* node = enter<kPrep>(m, i);
    if (node == nullptr) return nullptr;
    if (node->type == OP_ANY_RUN && node->next >= 0) {
        const cont rest{node->next, depth, nullptr};
        return match_compound<kPrep>(m, *node, s, depth, &rest);
    }
    if (is_compound(node->type)) return match_compound<kPrep>(m, *node, s, depth, nullptr);
    return step<kPrep>(m, *node, s);
}

// ".*": the shortest run after which everything that follows matches up to the end of the
// subject. A following part that matches but stops short of the end counts as a failed
// attempt, so the scan always moves on and always ends.
template <bool kPrep>
const char* match_any_run(matcher& m, const char* s, const cont* after) {
    if (after == nullptr) return m.eol;
    const TRexNode* first = enter<kPrep>(m, after->node);
    if (first == nullptr) return nullptr;
    // Only positions where the following node can take its first step are worth a try: a
    // single-position node, or the operand of a repetition that needs at least one.
    const TRexNode* probe = nullptr;
    if (!is_compound(first->type)) {
        probe = first;
    } else if (first->type == OP_GREEDY && bounds_min(first->right) > 0) {
        probe = enter<kPrep>(m, first->left);
        if (probe == nullptr) return nullptr;
        if (is_compound(probe->type)) probe = nullptr;
    }
    if (first->type != OP_EOL) {
        // In a prepared pattern the positions the probe refuses are passed by table lookup,
        // counting what the loop below would count, whenever no limit can be reached on the
        // way there.
        const node_facts* pf = kPrep && probe != nullptr ? &m.facts[probe - m.nodes] : nullptr;
        const byte_set* accept = pf != nullptr && pf->accept >= 0 ? &m.sets[pf->accept] : nullptr;
        const byte_set* members =
            pf != nullptr && pf->members >= 0 ? &m.sets[pf->members] : nullptr;
        const long worst = 2 + (members != nullptr ? pf->miss_steps : 0);
        for (const char* p = s; p < m.eol; ++p) {
            if (accept != nullptr && !m.abandoned &&
                m.steps + (m.eol - p) * worst <= TREX_MAX_STEPS) {
                if (members == nullptr || pf->miss_steps == 0) {
                    // Every position costs the same: count them once the scan stops.
                    const char* from = p;
                    while (p < m.eol && !accept->has(static_cast<unsigned char>(*p))) ++p;
                    m.steps += (p - from + (p < m.eol ? 1 : 0)) * (members != nullptr ? 2 : 1);
                } else {
                    for (; p < m.eol; ++p) {
                        const auto c = static_cast<unsigned char>(*p);
                        m.steps += members->has(c) ? 2 : 2 + pf->miss_steps;
                        if (accept->has(c)) break;
                    }
                }
                if (p == m.eol) break;
            } else {
                if (++m.steps > TREX_MAX_STEPS) {
                    TREX_MATCH_ERROR("match abandoned after %ld steps", TREX_MAX_STEPS);
                    m.abandon();
                    return nullptr;
                }
                if (probe != nullptr && step<kPrep>(m, *probe, p) == nullptr) {
                    if (m.abandoned) return nullptr;
                    continue;
                }
            }
            const char* r = run<kPrep>(m, after, p);
            if (m.abandoned) return nullptr;
            if (r == m.eol) return r;
        }
    }
    // At the end of the subject only an end-of-line node can follow.
    if (first->type != OP_EOL) return nullptr;
    return run<kPrep>(m, after, m.eol);
}

// Up to four single-position nodes of which one must match at the first position of any
// match of the sequence at node i: the node itself, or the first nodes of the alternatives
// of a group. Zero when no such set is known.
struct first_steps {
    const TRexNode* nodes[4];
    int count = 0;
    const byte_set* bytes = nullptr;  // a prepared pattern's table of what the nodes take

    template <bool kPrep>
    bool exclude(matcher& m, const char* p) const {
        if (bytes != nullptr) return !bytes->has(static_cast<unsigned char>(*p));
        if (count == 0) return false;
        for (int k = 0; k < count; ++k) {
            if (step<kPrep>(m, *nodes[k], p) != nullptr) return false;
        }
        return true;
    }
};

// Fills f (as constructed) in place: returning it by value costs more than the lookup saves.
template <bool kPrep>
void first_steps_of(matcher& m, int32_t i, first_steps* f) {
    if (kPrep && !m.abandoned) {
        const node_facts& known = m.facts[i];
        if (known.first_set != kFirstUnknown && m.steps + known.first_enters <= TREX_MAX_STEPS) {
            m.steps += known.first_enters;  // as entering those nodes would count
            if (known.first_set >= 0) f->bytes = &m.sets[known.first_set];
            return;
        }
    }
    const TRexNode* node = enter<kPrep>(m, i);
    if (node != nullptr && (node->type == OP_EXPRESSION || node->type == OP_EXPRESSION_ALT)) {
        node = enter<kPrep>(m, node->left);
    }
    while (node != nullptr && node->type == OP_OR && f->count < 4) {
        const TRexNode* left = enter<kPrep>(m, node->left);
        if (left == nullptr || is_compound(left->type)) {
            f->count = 0;
            return;
        }
        f->nodes[f->count++] = left;
        node = enter<kPrep>(m, node->right);
    }
    if (node == nullptr || is_compound(node->type) || f->count == 4) {
        f->count = 0;
        return;
    }
    f->nodes[f->count++] = node;
}

template <bool kPrep>
const char* match_greedy(matcher& m, const TRexNode& node, const char* s, int32_t depth,
                         const cont* after) {
    const uint32_t min = bounds_min(node.right);
    const uint32_t max = bounds_max(node.right);
    const TRexNode* op = enter<kPrep>(m, node.left);
    if (op == nullptr) return nullptr;
    // A single-position operand is stepped directly; anything else goes through the matcher.
    const bool single = !is_compound(op->type);
    auto repeat = [&m, op, single, depth, operand = node.left](const char* p) {
        if (!single) return match_one<kPrep>(m, operand, p, depth);
        ++m.steps;
        return step<kPrep>(m, *op, p);
    };
    const char* r = s;

    if (min == 0 && max == 1) {
        // "?": take the one repetition only if the rest then matches.
        const char* once = repeat(s);
        if (once != nullptr) {
            const char* e = run<kPrep>(m, after, once);
            if (e != nullptr) return e;
        }
        return m.abandoned ? nullptr : run<kPrep>(m, after, s);
    }
    if (max == TREX_UNBOUNDED && min <= 1) {
        // "*" and "+": the fewest repetitions (at least one once the operand has matched)
        // after which the rest matches.
        r = repeat(s);
        if (r == nullptr) return (min == 0 && !m.abandoned) ? run<kPrep>(m, after, s) : nullptr;
        if (after == nullptr) {
            while (r < m.eol) {
                const char* more = repeat(r);
                if (more == nullptr || more == r) break;
                r = more;
            }
            return m.abandoned ? nullptr : r;
        }
        for (;;) {
            const char* e = run<kPrep>(m, after, r);
            if (e != nullptr) return e;
            if (m.abandoned || r >= m.eol) return nullptr;
            const char* more = repeat(r);
            if (more == nullptr || more == r) return nullptr;
            r = more;
        }
    }
    // The minimum first; a repetition that consumes nothing would repeat identically.
    uint32_t done = 0;
    while (done < min) {
        const char* more = repeat(r);
        if (more == nullptr) return nullptr;
        ++done;
        if (more == r) {
            done = max;
            break;
        }
        r = more;
    }
    if (min == max) return run<kPrep>(m, after, r);
    if (after == nullptr || depth > 1) {
        // Nested or last: as many as match, up to the maximum.
        while (max == TREX_UNBOUNDED || done < max) {
            const char* more = repeat(r);
            if (more == nullptr || more == r) break;
            r = more;
            ++done;
        }
        return m.abandoned ? nullptr : run<kPrep>(m, after, r);
    }
    // The rest is tried after every repetition; most of those attempts fail on their first
    // character, which is cheap to see without a full attempt.
    first_steps rest;
    first_steps_of<kPrep>(m, after->node, &rest);
    for (;;) {
        const char* e = rest.template exclude<kPrep>(m, r) ? nullptr : run<kPrep>(m, after, r);
        if (e != nullptr) return e;
        if (m.abandoned || (max != TREX_UNBOUNDED && done >= max)) return nullptr;
        const char* more = repeat(r);
        if (more == nullptr || more == r) return nullptr;
        r = more;
        ++done;
    }
}

// match_or() over alternatives that are lone free byte nodes: each is a table lookup, and the
// node entries it would make are counted in one sum, checked wherever a step could follow.
const char* match_byte_alternatives(matcher& m, const TRexNode& node, const char* s,
                                    const cont* after) {
    const auto c = static_cast<unsigned char>(s < m.eol ? *s : '\0');
    const node_facts* facts = m.facts;
    const byte_set* sets = m.sets;
    long owed = 0;
    // Counts the entries owed; false when that passes the limit, which then ends the match.
    const auto settle = [&m, &owed]() {
        m.steps += owed;
        owed = 0;
        return m.steps <= TREX_MAX_STEPS || enter_slow(m, 0) != nullptr;
    };
    const TRexNode* alt = &node;
    for (;;) {
        ++owed;  // the left alternative
        if (sets[facts[alt->left].accept].has(c)) {
            if (!settle()) return nullptr;
            const char* e = run<true>(m, after, s + 1);
            if (e != nullptr || m.abandoned) return e;
        }
        ++owed;  // the right one
        const TRexNode& right = m.nodes[alt->right];
        if (right.type == OP_OR && right.next < 0) {
            alt = &right;
            continue;
        }
        ++owed;  // entered once more as a sequence of its own
        if (!settle()) return nullptr;
        return sets[facts[alt->right].accept].has(c) ? run<true>(m, after, s + 1) : nullptr;
    }
}

template <bool kPrep>
const char* match_or(matcher& m, const TRexNode& node, const char* s, int32_t depth,
                     const cont* after) {
    if constexpr (kPrep) {
        if (m.facts[&node - m.nodes].byte_alternatives) {
            return match_byte_alternatives(m, node, s, after);
        }
    }
    // Each alternative is matched on its own, without what follows; the first one after which
    // the rest also matches is kept. Chains of alternatives are walked in a loop, so a long
    // list of them costs no stack.
    const TRexNode* alt = &node;
    for (;;) {
        const TRexNode* left = enter<kPrep>(m, alt->left);
        if (left == nullptr) return nullptr;
        const char* r = (!is_compound(left->type) && left->next < 0)
                            ? step<kPrep>(m, *left, s)
                            : match_seq<kPrep>(m, alt->left, s, depth, nullptr);
        if (r != nullptr) {
            const char* e = run<kPrep>(m, after, r);
            if (e != nullptr) return e;
        }
        if (m.abandoned) return nullptr;
        const TRexNode* right = enter<kPrep>(m, alt->right);
        if (right == nullptr) return nullptr;
        if (right->type == OP_OR && right->next < 0) {
            alt = right;
            continue;
        }
        r = match_seq<kPrep>(m, alt->right, s, depth, nullptr);
        return r != nullptr ? run<kPrep>(m, after, r) : nullptr;
    }
}

template <bool kPrep>
[[gnu::always_inline]] inline const char* match_compound(matcher& m, const TRexNode& node,
                                                         const char* s, int32_t depth,
                                                         const cont* after) {
    if (m.recursion >= TREX_MAX_RECURSION) {
        if (!m.abandoned) TREX_MATCH_ERROR("match abandoned at recursion depth %d", m.recursion);
        m.abandon();
        return nullptr;
    }
    ++m.recursion;
    const char* r = nullptr;
    switch (node.type) {
        case OP_EXPRESSION:
        case OP_EXPRESSION_ALT:
            // The nesting travels with the frames; the record's depth field only reads 0
            // between matches, so it is not kept up to date while one runs.
            r = match_seq<kPrep>(m, node.left, s, depth + 1, after);
            break;
        case OP_OR:
            r = match_or<kPrep>(m, node, s, depth, after);
            break;
        case OP_ANY_RUN:
            r = match_any_run<kPrep>(m, s, after);
            break;
        case OP_GREEDY:
            r = match_greedy<kPrep>(m, node, s, depth, after);
            break;
        default:
            break;
    }
    --m.recursion;
    return m.abandoned ? nullptr : r;
}

constexpr std::string_view kSpecial = "$()*+.?[\\]^{|}";

// Grows a compiled pattern's node array by the room its prepared facts take.
bool make_room_for_facts(TRex* exp) {
    const std::size_t tail = ow::trex_tail_bytes(exp->nallocated);
    if (tail == 0) return true;
    std::size_t bytes = 0;
    if (ow::mul_overflows(static_cast<std::size_t>(exp->nallocated), sizeof(TRexNode), &bytes) ||
        ow::add_overflows(bytes, tail, &bytes)) {
        TREX_COMPILE_ERROR("%s", std::strerror(ENOMEM));
        return false;
    }
    auto* grown = static_cast<TRexNode*>(ow::mem_realloc(exp->nodes, bytes));
    if (grown == nullptr) {
        TREX_COMPILE_ERROR("%s", std::strerror(ENOMEM));
        return false;
    }
    exp->nodes = grown;
    return true;
}

}  // namespace

std::size_t ow::trex_tail_bytes(int32_t count) noexcept {
    return count > 0 && count <= kMaxPreparedNodes ? prepared_bytes(count) : 0;
}

void ow::trex_prepare(TRex* exp) noexcept { prepare(exp); }

// ---------------------------------------------------------------------------------------
// Public API.

extern "C" {

TRex* trex_compile_ex(const char* pattern, uint8_t case_mode) {
    if (pattern == nullptr || *pattern == '\0') {
        OW_ERROR("%s: [%s]", std::strerror(EINVAL), pattern != nullptr ? pattern : "NULL");
        return nullptr;
    }
    auto* exp = static_cast<TRex*>(ow::mem_calloc(1, sizeof(TRex)));
    if (exp == nullptr) {
        OW_ENOMEM();
        return nullptr;
    }
    exp->case_mode = case_mode;
    ow::unique_cstr text(wrap_pattern(pattern));
    if (!text) {
        OW_ENOMEM();
        trex_free(exp);
        return nullptr;
    }
    const std::size_t length = std::strlen(text.get());
    std::size_t bytes = 0;
    if (length > INT32_MAX / 2 || ow::mul_overflows(length, sizeof(TRexNode), &bytes)) {
        OW_ERROR("%s: [%s]", std::strerror(E2BIG), pattern);
        trex_free(exp);
        return nullptr;
    }
    exp->nodes = static_cast<TRexNode*>(ow::mem_malloc(bytes));
    if (exp->nodes == nullptr) {
        OW_ENOMEM();
        trex_free(exp);
        return nullptr;
    }
    exp->nallocated = static_cast<int32_t>(length);
    exp->cursor = text.get();

    bool ok = false;
    exp->first = new_node(exp, OP_EXPRESSION);
    if (exp->first < 0) {
        OW_ERROR("Failed to create 'expression' node");
    } else {
        const int32_t list = parse_list(exp, 0);
        if (list >= 0) {
            exp->nodes[exp->first].left = list;
            if (*exp->cursor != '\0') {
                OW_ERROR("Unexpected character %c after processing", *exp->cursor);
            } else {
                ok = true;
            }
        }
    }
    exp->cursor = nullptr;  // the text is freed on return
    if (!ok || !make_room_for_facts(exp)) {
        trex_free(exp);
        return nullptr;
    }
    prepare(exp);
    return exp;
}

bool trex_validate(const TRex* exp) {
    if (exp == nullptr) {
        OW_EINVAL();
        return false;
    }
    const int32_t count = exp->nodes != nullptr && exp->nallocated > 0 ? exp->nallocated : 0;
    ow::unique_cptr<void> scratch(ow::mem_malloc(walk_scratch_bytes(count)));
    if (!scratch) {
        OW_ENOMEM();
        return false;
    }
    return walk_entered(exp, scratch.get(), true);
}

bool trex_match(TRex* exp, const char* subject) {
    if (exp == nullptr || subject == nullptr) {
        OW_EINVAL();
        return false;
    }
    exp->bol = subject;
    exp->eol = subject + std::strlen(subject);
    exp->depth = 0;
    const prepared* p = prepared_of(exp);
    if (p != nullptr && !may_match(*p, exp->bol, exp->eol)) return false;
    matcher m(exp, p, exp->bol, exp->eol);
    const char* r =
        p != nullptr ? match_one<true>(m, 0, subject, 0) : match_one<false>(m, 0, subject, 0);
    exp->depth = 0;
    return r != nullptr && !m.abandoned;
}

void trex_free(TRex* exp) {
    if (exp == nullptr) return;
    std::free(exp->nodes);
    std::free(exp);
}

char* trex_escape(const char* text) {
    if (text == nullptr || *text == '\0') {
        OW_EINVAL();
        return nullptr;
    }
    const std::string_view in(text);
    std::size_t specials = 0;
    for (char c : in) specials += kSpecial.find(c) != std::string_view::npos;
    std::size_t size = 0;
    if (ow::add_overflows(in.size(), specials, &size) || ow::add_overflows(size, 1, &size)) {
        OW_ENOMEM();
        return nullptr;
    }
    auto* out = static_cast<char*>(ow::mem_malloc(size));
    if (out == nullptr) {
        OW_ENOMEM();
        return nullptr;
    }
    char* w = out;
    for (char c : in) {
        if (kSpecial.find(c) != std::string_view::npos) *w++ = '\\';
        *w++ = c;
    }
    *w = '\0';
    return out;
}

}  // extern "C"
