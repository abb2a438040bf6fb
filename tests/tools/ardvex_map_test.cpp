// Runs the real ardvex-map on map files: the dump in insertion order with unsafe bytes
// escaped, one value by key, and a damaged file refused with the loader's line.
#include "ow_hashmap.h"
#include "tool_run.hpp"

namespace {

#ifdef ARDVEX_MAP
constexpr const char* kTool = ARDVEX_MAP;
#else
constexpr const char* kTool = nullptr;
#endif

class MapTool : public ow_test::ToolTest {
   protected:
    MapTool() : ToolTest(kTool) {}
};

TEST_F(MapTool, DumpsGetsAndRefuses) {
    ow_hashmap* m = ow_map_create(0, 0);
    const std::pair<const char*, std::string> pairs[] = {
        {"version", std::string("2.1\0", 4)},
        {"a=b", "line\nfeed\ttab \x1b[31m\\"},
        {"binary", std::string("\x00\xff\x80", 3)},
    };
    for (const auto& [k, v] : pairs) {
        ASSERT_TRUE(ow_map_store_ex(m, k, const_cast<char*>(v.data()), v.size(), true, nullptr));
    }
    ASSERT_TRUE(ow_map_store_uint32(m, "count", 258));
    const std::string file = path("map");
    ASSERT_TRUE(ow_map_save(m, file.c_str(), true));
    ow_map_destroy(m);

    EXPECT_EQ(run("dump " + file), 0);
    EXPECT_EQ(out_,
              "version=2.1\n"
              "a\\=b=line\\nfeed\\ttab \\x1b[31m\\\\\n"
              "binary=\\x00\\xff\\x80\n"
              "count=\\x02\\x01\\x00\n");
    EXPECT_EQ(run("get " + file + " version"), 0);
    EXPECT_EQ(out_, "2.1\n");
    EXPECT_EQ(run("get " + file + " missing"), 1);
    EXPECT_EQ(err_, "ardvex-map: no key [missing] in " + file + "\n");

    ow_test::spit(file, "short");
    EXPECT_EQ(run("dump " + file), 1);
    const std::string refusal = "ow_map_load(): Map file [" + file + "] is too short for a map";
    EXPECT_NE(err_.find("ERROR " + refusal + ": 5 bytes"), std::string::npos) << err_;
    EXPECT_EQ(run("dump"), 2);
}

}  // namespace
