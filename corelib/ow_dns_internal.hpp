// ow_dns_internal.hpp: the parts of ow_dns.cpp that read strangers' bytes, reachable
// without a file system or a name server so that tests and fuzz targets can feed them
// directly. Never installed. Each logs under the name of the public function it serves.
#ifndef OW_DNS_INTERNAL_HPP
#define OW_DNS_INTERNAL_HPP

#include <cstdint>
#include <cstdio>

namespace ow::dns {

// Reads hosts-file lines from file and collects the names of every line whose address
// equals query (query is the canonical text of an address of family AF_INET or AF_INET6).
// Returns the number of names and stores the name array (or nullptr when none) at *names;
// -1 after an allocation failure, with nothing stored. The caller holds the hosts-file lock.
int32_t scan_hosts(std::FILE* file, const char* query, int family, char*** names) noexcept;

// Judges a received answer to the MX query for name: the verdict of ow_resolv_MX.
int32_t mx_answer(const unsigned char* msg, int length, const char* name) noexcept;

// Judges a received answer to the PTR query for name and collects its names in mode 0
// (all) or 1 (first): the verdict of ow_lookup_reverse_dns once the query was sent. On 0,
// when names is not nullptr, the array held at *names is freed and the new one stored.
int32_t ptr_answer(const unsigned char* msg, int length, const char* name, int32_t mode,
                   char*** names) noexcept;

}  // namespace ow::dns

#endif  // OW_DNS_INTERNAL_HPP
