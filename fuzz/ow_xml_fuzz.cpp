// Feeds arbitrary text to the XML reader, then searches, prints and releases what it built.
// Deeply nested and unterminated documents must neither exhaust the stack nor leak.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "ow_xml.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = [] {
        const int null = open("/dev/null", O_WRONLY);
        return null >= 0 && dup2(null, STDOUT_FILENO) >= 0;
    }();
    (void)quiet;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const char* end = nullptr;
    ow_xml_node* node = ow_xml_string_to_node(text.c_str(), &end, nullptr);
    if (end != nullptr &&
        (end < text.c_str() || end >= text.c_str() + text.size() || *end != '>')) {
        abort();
    }
    if (node != nullptr) {
        (void)ow_xml_retrieve_key_value(node, "a");
        if (node->name != nullptr && node->name[0] != '\0' && node->data != nullptr &&
            ow_xml_retrieve_key_value(node, node->name) == nullptr) {
            abort();
        }
        ow_xml_add_node_attribute(node, text.c_str(), nullptr);
        ow_xml_print_node(node, 0);
    }
    ow_xml_destroy_node(node);
    return 0;
}
