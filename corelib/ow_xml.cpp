// ow_xml: a tolerant single-pass reader for small XML-like documents, and the walks over the
// trees it builds.
//
// The scanner is written as a loop over an explicit stack of open elements instead of a call
// per nesting level, so a document nested a million levels deep costs heap, not call stack.
// Every other walk (search, print, release) is iterative for the same reason. A document that
// ends inside an element ends every element around it as well: the text is exhausted, so
// there is nothing left for the outer elements to read.
#include "ow_xml.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ow_internal.hpp"
#include "ow_list.h"
#include "ow_stringutils.h"

namespace {

inline bool is_space(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}
inline bool is_printable(char c) noexcept {
    return static_cast<unsigned char>(c) >= 0x20 && static_cast<unsigned char>(c) <= 0x7E;
}
inline const char* or_null(const char* s) noexcept { return s != nullptr ? s : "NULL"; }

// Links record at *tail and moves tail to the new entry's next field. False when the entry
// cannot be allocated (record untouched).
bool append(ow_list**& tail, void* record, size_t size) noexcept {
    auto* entry = static_cast<ow_list*>(ow::mem_malloc(sizeof(ow_list)));
    if (entry == nullptr) return false;
    entry->data = record;
    entry->size = size;
    entry->next = nullptr;
    *tail = entry;
    tail = &entry->next;
    return true;
}

// An element being read: what one level of the scanner knows.
struct frame {
    ow_xml_node* node = nullptr;
    ow_list** child_tail = nullptr;  // where the next child's entry is linked
    const char* name_start = nullptr;
    const char* data_start = nullptr;
    bool open_tag = false;
    bool in_name = false;
    bool in_content = false;
    bool close_tag = false;
};

// What one character did to the innermost element; failed means out of memory (the caller
// reports it, so the line names the public function).
enum class step { go_on, child, closed, failed };

char* copy_range(const char* from, const char* to) noexcept {
    return ow::dup_cstr(std::string_view(from, static_cast<size_t>(to - from)));
}

// Reads the character at pos; when it closes the element, *closed_at is its ">".
step scan_char(frame& f, const char* pos, const char** closed_at) noexcept {
    const char c = *pos;
    if (!f.open_tag && !f.in_content) {
        if (f.close_tag) {
            if (c != '>') return step::go_on;
            OW_DEBUG("ending loop - found '>' in close tag");
            f.close_tag = false;
            *closed_at = pos;
            return step::closed;
        }
        if (c == '<' && pos[1] != '/') {
            OW_DEBUG("found '<' - creating tag");
            f.node = static_cast<ow_xml_node*>(ow::mem_calloc(1, sizeof(ow_xml_node)));
            if (f.node == nullptr) return step::failed;
            f.child_tail = &f.node->children;
            f.open_tag = true;
        }
        return step::go_on;
    }
    if (f.open_tag && !f.in_name) {
        if (c == '/' && pos[1] == '>') {
            OW_DEBUG("found self closed tag");
            *closed_at = pos + 1;
            return step::closed;
        }
        if (c == '>') {
            OW_DEBUG("setting 'in_tag'");
            f.open_tag = false;
            f.in_content = true;
        } else if (!is_space(c) && f.node->name == nullptr) {
            OW_DEBUG("flagging start of tag name");
            f.name_start = pos;
            f.in_name = true;
        }
        return step::go_on;
    }
    if (f.in_name) {
        if (c != '/' && c != '>' && !is_space(c)) return step::go_on;
        if (f.name_start != nullptr) {
            OW_DEBUG("setting tag name");
            f.node->name = copy_range(f.name_start, pos);
            if (f.node->name == nullptr) return step::failed;
            OW_DEBUG("tag name set to [%s]", f.node->name);
        }
        f.in_name = false;
        if (c == '>') {
            f.in_content = true;
            f.open_tag = false;
        } else if (c == '/' && pos[1] == '>') {
            *closed_at = pos + 1;
            return step::closed;
        }
        return step::go_on;
    }
    // In content.
    if (c != '<') {
        if (f.data_start == nullptr && !is_space(c)) {
            f.data_start = pos;
            OW_DEBUG("found start of data [%s]", pos);
        }
        return step::go_on;
    }
    if (pos[1] == '/') {
        if (f.data_start != nullptr) {
            f.node->data = copy_range(f.data_start, pos);
            if (f.node->data == nullptr) return step::failed;
        }
        f.in_content = false;
        f.close_tag = true;
        return step::go_on;
    }
    OW_DEBUG("found start of child node");
    return step::child;
}

// Hands a finished child to its parent. False when the list entry cannot be allocated (the
// child is then released).
bool adopt(frame& parent, ow_xml_node* child) noexcept {
    if (append(parent.child_tail, child, sizeof(ow_xml_node))) return true;
    ow_xml_destroy_node(child);
    return false;
}

void release_frames(std::vector<frame>& stack) noexcept {
    for (auto& f : stack) ow_xml_destroy_node(f.node);
    stack.clear();
}

void destroy_attributes(ow_list* list) noexcept {
    while (list != nullptr) {
        ow_list* next = list->next;
        ow_xml_destroy_attribute(static_cast<ow_xml_attribute*>(list->data));
        std::free(list);
        list = next;
    }
}

bool same_name(const char* a, const char* b) noexcept {
    for (; *a != '\0' && *b != '\0'; ++a, ++b) {
        auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
        if (lower(*a) != lower(*b)) return false;
    }
    return *a == *b;
}

void tabs(uint8_t depth) {
    for (unsigned i = 0; i < depth; ++i) std::fputc('\t', stdout);
}

void print_open(const ow_xml_node* node, uint8_t depth) {
    tabs(depth);
    std::printf("<%s", node->name != nullptr ? node->name : "");
    for (const ow_list* a = node->attributes; a != nullptr; a = a->next) {
        const auto* attr = static_cast<const ow_xml_attribute*>(a->data);
        std::printf(" %s", attr->label);
        if (attr->value != nullptr) std::printf("=%s", attr->value);
    }
    std::fputc('>', stdout);
    if (node->data != nullptr) std::fputs(node->data, stdout);
}

void print_close(const ow_xml_node* node, uint8_t depth) {
    if (node->children != nullptr && depth != 0) tabs(depth);
    std::printf("</%s>\n", node->name != nullptr ? node->name : "");
}

}  // namespace

extern "C" {

ow_xml_node* ow_xml_string_to_node(const char* text, const char** end, ow_xml_node* parent) {
    (void)parent;
    if (text == nullptr || text[0] == '\0') return nullptr;
    std::vector<frame> stack;
    try {
        stack.emplace_back();
        const char* pos = text;
        while (*pos != '\0') {
            if (!is_space(*pos) && !is_printable(*pos)) {
                ++pos;
                continue;
            }
            const char* closed_at = nullptr;
            const step s = scan_char(stack.back(), pos, &closed_at);
            if (s == step::failed) {
                OW_ENOMEM();
                release_frames(stack);
                return nullptr;
            }
            if (s == step::child) {
                stack.emplace_back();  // the child starts at this "<"
                continue;
            }
            if (s == step::closed) {
                pos = closed_at;
                if (stack.size() == 1) {
                    if (end != nullptr) *end = pos;
                    return stack.back().node;
                }
                ow_xml_node* child = stack.back().node;
                stack.pop_back();
                OW_DEBUG("found child node [%s]", or_null(child->name));
                OW_DEBUG("string is now [%s]", pos);
                if (!adopt(stack.back(), child)) {
                    OW_ENOMEM();
                    release_frames(stack);
                    return nullptr;
                }
            }
            ++pos;
        }
        // The text ended inside elements: each one still open ends here, inside its parent.
        while (stack.size() > 1) {
            ow_xml_node* child = stack.back().node;
            stack.pop_back();
            if (!adopt(stack.back(), child)) {
                OW_ENOMEM();
                release_frames(stack);
                return nullptr;
            }
        }
        return stack.back().node;
    } catch (...) {
        OW_ENOMEM();
        release_frames(stack);
        return nullptr;
    }
}

const char* ow_xml_retrieve_key_value(const ow_xml_node* node, const char* name) {
    if (node == nullptr || name == nullptr || name[0] == '\0') {
        OW_EINVAL();
        return nullptr;
    }
    OW_DEBUG("Searching for key name [%s]", name);
    if (node->name != nullptr && node->name[0] != '\0' && same_name(node->name, name) &&
        node->data != nullptr) {
        return node->data;
    }
    // Depth first, in document order: a stack of the sibling lists still to be searched.
    std::vector<const ow_list*> pending;
    try {
        pending.push_back(node->children);
        while (!pending.empty()) {
            const ow_list* entry = pending.back();
            if (entry == nullptr) {
                pending.pop_back();
                continue;
            }
            pending.back() = entry->next;
            const auto* n = static_cast<const ow_xml_node*>(entry->data);
            if (n->name != nullptr && n->name[0] != '\0' && same_name(n->name, name) &&
                n->data != nullptr) {
                return n->data;
            }
            pending.push_back(n->children);
        }
    } catch (...) {
        OW_ENOMEM();
    }
    return nullptr;
}

bool ow_xml_add_node_attribute(ow_xml_node* node, const char* text, const char* end) {
    if (node == nullptr || text == nullptr || end == text || (end == nullptr && text[0] == '\0') ||
        (end != nullptr && end < text)) {
        OW_EINVAL();
        return false;
    }
    if (end == nullptr) end = text + std::strlen(text);
    const char* equals = static_cast<const char*>(std::memchr(text, '=', end - text));
    const char* label_end = equals != nullptr ? equals : end;
    if (label_end == text) {
        OW_ERROR("Corrupt data - attribute string must have a label");
        return false;
    }
    ow::unique_cstr label(copy_range(text, label_end));
    ow::unique_cstr value;
    if (!label) {
        OW_ENOMEM();
        return false;
    }
    if (equals != nullptr && equals + 1 < end) {
        value.reset(copy_range(equals + 1, end));
        if (!value) {
            OW_ENOMEM();
            return false;
        }
    }
    char* l = label.release();
    char* v = value.release();
    const bool simplified =
        ow_simplify_whitespace(&l) && (v == nullptr || ow_simplify_whitespace(&v));
    label.reset(l);
    value.reset(v);
    if (!simplified) return false;
    auto* attr = static_cast<ow_xml_attribute*>(ow::mem_malloc(sizeof(ow_xml_attribute)));
    if (attr == nullptr) {
        OW_ENOMEM();
        return false;
    }
    attr->label = label.release();
    attr->value = value.release();
    OW_DEBUG("Label parsed: [%s]", attr->label);
    if (attr->value != nullptr) OW_DEBUG("Value parsed: [%s]", attr->value);
    ow_list** tail = &node->attributes;
    while (*tail != nullptr) tail = &(*tail)->next;
    if (!append(tail, attr, sizeof(ow_xml_attribute))) {
        OW_ENOMEM();
        ow_xml_destroy_attribute(attr);
        return false;
    }
    return true;
}

void ow_xml_destroy_attribute(ow_xml_attribute* attribute) {
    if (attribute == nullptr) {
        OW_DEBUG("argument is NULL, nothing to do.");
        return;
    }
    std::free(attribute->label);
    std::free(attribute->value);
    std::free(attribute);
}

void ow_xml_destroy_node(ow_xml_node* node) {
    if (node == nullptr) {
        OW_DEBUG("argument is NULL, nothing to do.");
        return;
    }
    // The children's own list entries serve as the work list, so releasing a tree of any
    // depth needs neither recursion nor memory.
    ow_list* pending = nullptr;
    for (;;) {
        OW_DEBUG("freeing the node with name %s", or_null(node->name));
        if (node->children != nullptr) {
            ow_list* tail = node->children;
            while (tail->next != nullptr) tail = tail->next;
            tail->next = pending;
            pending = node->children;
        }
        destroy_attributes(node->attributes);
        std::free(node->name);
        std::free(node->data);
        std::free(node);
        if (pending == nullptr) return;
        ow_list* entry = pending;
        pending = entry->next;
        node = static_cast<ow_xml_node*>(entry->data);
        std::free(entry);
    }
}

void ow_xml_print_node(const ow_xml_node* node, uint8_t depth) {
    if (node == nullptr) return;
    struct level {
        const ow_xml_node* node;
        const ow_list* next_child;
        uint8_t depth;
    };
    std::vector<level> stack;
    try {
        print_open(node, depth);
        stack.push_back({node, node->children, depth});
        while (!stack.empty()) {
            level& top = stack.back();
            if (top.next_child == nullptr) {
                print_close(top.node, top.depth);
                stack.pop_back();
                continue;
            }
            const auto* child = static_cast<const ow_xml_node*>(top.next_child->data);
            top.next_child = top.next_child->next;
            const auto child_depth = static_cast<uint8_t>(top.depth + 1);
            std::fputc('\n', stdout);
            print_open(child, child_depth);
            stack.push_back({child, child->children, child_depth});
        }
    } catch (...) {
        OW_ENOMEM();
    }
    std::fflush(stdout);
}

}  // extern "C"
