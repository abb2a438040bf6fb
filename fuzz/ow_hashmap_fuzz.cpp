// Feeds arbitrary bytes to the map-file reader. Whatever it accepts must be a consistent map:
// iterable both ways with num_pairs pairs, every key fetchable, and savable to the same bytes.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ow_hashmap.h"

namespace {
std::string scratch_path(const char* what) {
    return std::string("/dev/shm/ow_hashmap_fuzz.") + std::to_string(getpid()) + what;
}
bool write_all(const std::string& path, const uint8_t* data, size_t size) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) return false;
    bool ok = size == 0 || write(fd, data, size) == static_cast<ssize_t>(size);
    close(fd);
    return ok;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string in = scratch_path(".in"), out = scratch_path(".out");
    if (!write_all(in, data, size)) return 0;
    ow_hashmap* map = ow_map_load(in.c_str());
    if (map == nullptr) return 0;

    uint32_t forward = 0, backward = 0;
    ow_map_iterator it;
    ow_map_iterator_init(&it, map);
    const char* key = nullptr;
    while (ow_map_iterator_next(&it, &key, nullptr)) {
        if (!ow_map_fetch(map, key, nullptr)) abort();
        ++forward;
    }
    while (ow_map_iterator_prev(&it, nullptr, nullptr)) ++backward;
    if (forward != map->num_pairs || backward != map->num_pairs) abort();

    // The static bit is dropped on load; everything else must come back byte for byte.
    if (ow_map_save(map, out.c_str(), true) && (map->flags & 1u) == 0 &&
        (reinterpret_cast<const uint32_t*>(data)[0] & 1u) == 0) {
        ow_hashmap* again = ow_map_load(out.c_str());
        if (again == nullptr || again->num_pairs != map->num_pairs) abort();
        ow_map_destroy(again);
    }
    ow_map_destroy(map);
    return 0;
}
