// Fuzz target: the matcher's two paths must agree. A pattern made by the compiler or read from
// a pattern file carries prepared facts; a copy of its record without them (cursor NULL) takes
// the plain path, which checks every node as it goes. Both must give the same answer for every
// subject and write the same lines, except that the prepared path may turn a subject down
// before matching and so skip the lines of a match the plain path abandoned.
// Input layout: a flags byte (bit 0: exact case, bit 1: nodes rather than pattern text, bit 2:
// keep the case mode for nodes, bit 3: any node as the root), then either the pattern, a NUL and
// the subject, or a node count byte, four bytes per node (type, left, right, next) and the subject.
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ow_log.h"
#include "tiny_rex.h"
#include "tiny_rex_storage.h"

namespace {

std::string& log_text() {
    static std::string text;
    return text;
}

void capture(int priority, const char* format, ...) {
    char line[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    log_text() += std::to_string(priority) + " " + line + "\n";
}

// Node types worth drawing: a few letters and digits, and every operator.
constexpr int32_t kTypes[] = {'a',
                              'b',
                              '0',
                              '.',
                              '-',
                              'A',
                              OP_GREEDY,
                              OP_OR,
                              OP_EXPRESSION,
                              OP_EXPRESSION_ALT,
                              OP_ANY,
                              OP_CLASS,
                              OP_CHARACTER_CLASS,
                              OP_NON_MATCH_CLASS,
                              OP_RANGE,
                              OP_EOL,
                              OP_BOL,
                              OP_WORD_BLOCK,
                              OP_ANY_RUN};

// Turns bytes into nodes whose links mostly stay inside the array, so that many arrays
// survive validation and reach the matcher. The root is a group unless any_root.
std::vector<TRexNode> nodes_from(const uint8_t* data, std::size_t count, bool any_root) {
    std::vector<TRexNode> nodes(count);
    const auto link = [count](uint8_t b) {
        return static_cast<int32_t>(b % (count + 1)) - 1;  // -1 or an index
    };
    for (std::size_t i = 0; i < count; ++i) {
        const uint8_t* b = data + 4 * i;
        TRexNode& n = nodes[i];
        n.type = kTypes[b[0] % (sizeof kTypes / sizeof kTypes[0])];
        n.left = link(b[1]);
        n.right = link(b[2]);
        n.next = link(b[3]);
        if (n.type == OP_GREEDY) n.right = (b[2] & 3) << 16 | (b[2] >> 2 & 7);
        if (n.type == OP_RANGE) {
            n.left = 'a' + (b[1] & 7);
            n.right = 'a' + (b[2] & 15);
        }
        if (n.type == OP_CHARACTER_CLASS) n.left = "dDwWsSaxu"[b[1] % 9];
        if (n.type == OP_WORD_BLOCK) n.left = (b[1] & 1) != 0 ? 'b' : 'B';
    }
    if (!nodes.empty() && any_root) return nodes;
    if (!nodes.empty()) {
        nodes[0].type = OP_EXPRESSION;
        if (nodes[0].left < 0) nodes[0].left = count > 1 ? 1 : 0;
    }
    return nodes;
}

// Reads nodes back through a pattern file, as the engine gets them.
TRex* load(const std::vector<TRexNode>& nodes, uint8_t case_mode) {
    std::string image(sizeof(int32_t), '\0');
    const int32_t magic = TRS_MAGIC;
    std::memcpy(image.data(), &magic, sizeof magic);
    const auto count = static_cast<int32_t>(nodes.size());
    image.append(reinterpret_cast<const char*>(&count), sizeof count);
    image.append(reinterpret_cast<const char*>(nodes.data()), nodes.size() * sizeof(TRexNode));
    FILE* fp = ::fmemopen(image.data(), image.size(), "rb");
    if (fp == nullptr) return nullptr;
    auto* exp = static_cast<TRex*>(std::calloc(1, sizeof(TRex)));
    if (!trs_valid_file(fp) || !trs_next(fp, exp)) {
        trex_free(exp);
        exp = nullptr;
    } else {
        exp->case_mode = case_mode;  // the facts were built for mode 0; see that this is seen
    }
    std::fclose(fp);
    return exp;
}

void compare(TRex* exp, const char* subject) {
    TRex plain = *exp;
    plain.cursor = nullptr;
    log_text().clear();
    const bool slow = trex_match(&plain, subject);
    const std::string slow_log = log_text();
    log_text().clear();
    const bool fast = trex_match(exp, subject);
    const std::string fast_log = log_text();
    if (fast != slow) std::abort();
    if (fast_log != slow_log && !(fast_log.empty() && !fast)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    ow_set_log_function(&capture);
    const uint8_t case_mode = data[0] & 1;
    const std::string rest(reinterpret_cast<const char*>(data + 1), size - 1);
    TRex* exp = nullptr;
    std::string head;
    std::string subject;
    if ((data[0] & 2) == 0) {
        const std::size_t split = rest.find('\0');
        head = rest.substr(0, split);
        subject = split == std::string::npos ? std::string() : rest.substr(split + 1);
        exp = trex_compile_ex(head.c_str(), case_mode);
    } else if (!rest.empty()) {
        const std::size_t count = static_cast<uint8_t>(rest[0]) % 64 + 1;
        if (rest.size() < 1 + 4 * count) return 0;
        head = rest.substr(1, 4 * count);
        subject = rest.substr(1 + 4 * count);
        exp = load(
            nodes_from(reinterpret_cast<const uint8_t*>(head.data()), count, (data[0] & 8) != 0),
            (data[0] & 4) != 0 ? case_mode : 0);
    }
    if (exp != nullptr) {
        compare(exp, subject.c_str());
        compare(exp, head.c_str());
        trex_free(exp);
    }
    return 0;
}
