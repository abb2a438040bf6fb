// The XML reader: the scanner's rules, deep nesting, lookup, attributes, printing, no memory.
#include "ow_xml.h"

#include "ow_internal.hpp"
#include "scratch.hpp"

namespace {

// A tree as text: name, {data} when there is any, [children] when there are any.
std::string shape(const ow_xml_node* n) {
    if (n == nullptr) return "-";
    std::string s = n->name != nullptr ? n->name : "?";
    if (n->data != nullptr) s += "{" + std::string(n->data) + "}";
    for (const ow_list* c = n->children; c != nullptr; c = c->next) {
        s += (c == n->children ? "[" : ",") + shape(static_cast<const ow_xml_node*>(c->data)) +
             (c->next != nullptr ? "" : "]");
    }
    return s;
}

class Xml : public ow_test::LogCaptureTest {};

TEST_F(Xml, ScannerBuildsTheTreeTheRulesGive) {
    // Document, tree, index of the closing ">" (-1: none reported). An unterminated document
    // ends every open element, without data; control bytes are skipped, yet kept in data.
    const std::tuple<const char*, std::string, int> cases[] = {
        {"<a>hello</a> rest", "a{hello}", 11},
        {"<a> <b>x</b> </a>", "a[b{x}]", 16},
        {"<a>t<b/>u</a>", "a{t<b/>u}[b]", 12},
        {"<a x=\"1\">v</a>", "a{v}", 13},
        {"<a/>", "a", 3},
        {"<a x/>", "a", 5},
        {"no element", "-", -1},
        {"</x><y>z</y>", "y{z}", 11},
        {"<a><b><c>text", "a[b[c]]", -1},
        {"<a>\x01\xff<b>x\x7f</b>  </a>", "a[b{x\x7f}]", 19},
        {"<a>one<b>x</b>two</a>", "a{one<b>x</b>two}[b{x}]", 20},
        {"<a\n>\tx\n</wrong>", "a{x\n}", 14}};
    for (const auto& [text, tree, end_at] : cases) {
        SCOPED_TRACE(text);
        const char* end = nullptr;
        ow_xml_node* n = ow_xml_string_to_node(text, &end, nullptr);
        EXPECT_EQ(shape(n), tree);
        EXPECT_EQ(end == nullptr ? -1 : static_cast<int>(end - text), end_at);
        ow_xml_destroy_node(n);
    }
    EXPECT_FALSE(ow_xml_string_to_node("", nullptr, nullptr) ||
                 ow_xml_string_to_node(nullptr, nullptr, nullptr));
    EXPECT_NO_ERRORS();
}

// Nesting deeper than any call stack could hold: reading, searching and releasing use the heap.
TEST_F(Xml, DeepNestingNeedsNoStack) {
    ow_set_log_function(nullptr);  // a million DEBUG lines would only slow this down
    std::string open, close;
    for (int i = 0; i < 300000; ++i) open += "<a>", close += "</a>";
    const std::string deep = open + "core" + close;
    ow_xml_node* n = ow_xml_string_to_node(deep.c_str(), nullptr, nullptr);
    ASSERT_NE(n, nullptr);
    EXPECT_STREQ(ow_xml_retrieve_key_value(n, "A"), "core");
    ow_xml_destroy_node(n);
}

TEST_F(Xml, AttributesLookupAndPrinting) {
    ow_xml_node* n = ow_xml_string_to_node("<a><b>x</b><c>y</c></a>", nullptr, nullptr);
    ASSERT_NE(n, nullptr);
    EXPECT_STREQ(ow_xml_retrieve_key_value(n, "B"), "x");
    EXPECT_STREQ(ow_xml_retrieve_key_value(n, "c"), "y");
    EXPECT_EQ(ow_xml_retrieve_key_value(n, "a"), nullptr);  // no data: the search goes on
    EXPECT_TRUE(ow_xml_add_node_attribute(n, "  key   one =  some \t value ", nullptr));
    EXPECT_TRUE(ow_xml_add_node_attribute(n, "flag", nullptr));
    const char* text = "k=v;ignored";
    EXPECT_TRUE(ow_xml_add_node_attribute(n, text, text + 3));

    testing::internal::CaptureStdout();
    ow_xml_print_node(n, 0);
    ow_xml_print_node(nullptr, 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "<a key one=some value flag k=v>\n\t<b>x</b>\n\n\t<c>y</c>\n</a>\n");

    // An empty text is refused by its first byte, whatever lies past its end.
    ow_test::refused(
        "ow_xml_add_node_attribute", std::strerror(EINVAL),
        {!ow_xml_add_node_attribute(n, "\0x", nullptr), !ow_xml_add_node_attribute(n, text, text)});
    ow_test::refused("ow_xml_add_node_attribute",
                     "Corrupt data - attribute string must have a label",
                     {!ow_xml_add_node_attribute(n, "=v", nullptr)});
    ow_test::refused("ow_xml_retrieve_key_value", std::strerror(EINVAL),
                     {ow_xml_retrieve_key_value(n, "") == nullptr});
    ow_xml_destroy_node(n);
    ow_xml_destroy_node(nullptr);
}

TEST_F(Xml, OutOfMemoryReleasesEverything) {
    const char* doc = "<a><b>x</b>text<c/></a>";
    const long before = ow::testing::allocation_count();
    ow_xml_destroy_node(ow_xml_string_to_node(doc, nullptr, nullptr));
    const long needed = ow::testing::allocation_count() - before;
    for (long n = 1; n <= needed; ++n) {
        clear_log();
        ow::testing::fail_allocation(n);
        EXPECT_EQ(ow_xml_string_to_node(doc, nullptr, nullptr), nullptr) << n;  // LSan: no leak
        EXPECT_ERROR_LINE("ow_xml_string_to_node", std::strerror(ENOMEM));
    }
}

}  // namespace
