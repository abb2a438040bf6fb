// Benchmarks of the address checks over 100,000 generated addresses (bare, as fields with
// phrases, comments and brackets, and joined into headers of ten mailboxes), and of the IP
// classifications beside GLib's on the same 100,000 texts: family (ow_is_ip against
// g_hostname_is_ip_address and g_inet_address_new_from_string) and private or reserved
// (ow_is_unroutable_ip against GInetAddress's loopback/site-local/link-local/any tests).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "ow_list.h"
#include "ow_log.h"
#include "ow_rfc.h"

#ifdef ARDVEX_HAVE_GLIB
#include <glib.h>
#endif
#ifdef ARDVEX_HAVE_GIO
#include <gio/gio.h>
#endif

namespace {

constexpr std::size_t kCount = 100000;

std::string word(std::mt19937& rng, std::size_t min, std::size_t max) {
    static constexpr char letters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::uniform_int_distribution<std::size_t> len(min, max), pick(0, sizeof letters - 2);
    std::string w(len(rng), 'a');
    for (char& c : w) c = letters[pick(rng)];
    return w;
}

std::string address(std::mt19937& rng) {
    std::string a = word(rng, 3, 12);
    if (rng() % 3 == 0) a += "." + word(rng, 2, 8);
    if (rng() % 5 == 0) a += "+" + word(rng, 1, 5);
    return a + "@" + word(rng, 3, 10) + "." + (rng() % 2 ? "com" : "example.org");
}

// The addresses as bare texts and as header fields in the shapes mail software sees.
struct corpus {
    std::vector<std::string> bare, fields, headers, ips;
};

const corpus& data() {
    static const corpus c = [] {
        corpus k;
        std::mt19937 rng(42);
        for (std::size_t i = 0; i < kCount; ++i) {
            std::string a = address(rng);
            switch (i % 4) {
                case 0:
                    k.fields.push_back(a);
                    break;
                case 1:
                    k.fields.push_back("\"" + word(rng, 3, 9) + ", " + word(rng, 3, 9) + "\" <" +
                                       a + ">");
                    break;
                case 2:
                    k.fields.push_back(word(rng, 3, 9) + " <" + a + ">");
                    break;
                default:
                    k.fields.push_back(a + " (" + word(rng, 3, 9) + ")");
                    break;
            }
            k.bare.push_back(std::move(a));
        }
        for (std::size_t i = 0; i < kCount; i += 10) {
            std::string h;
            for (std::size_t j = i; j < i + 10; ++j) h += (j == i ? "" : ", ") + k.fields[j];
            k.headers.push_back(std::move(h));
        }
        std::uniform_int_distribution<int> octet(0, 255);
        for (std::size_t i = 0; i < kCount; ++i) {
            char buf[64];
            switch (i % 4) {
                case 0:
                case 1:
                    std::snprintf(buf, sizeof buf, "%d.%d.%d.%d", octet(rng), octet(rng),
                                  octet(rng), octet(rng));
                    break;
                case 2:
                    std::snprintf(buf, sizeof buf, "%s:db8:%x::%x", i % 8 == 2 ? "fd00" : "2001",
                                  octet(rng), octet(rng));
                    break;
                default:
                    std::snprintf(buf, sizeof buf, "mx%d.example.net", octet(rng));
                    break;
            }
            k.ips.emplace_back(buf);
        }
        return k;
    }();
    return c;
}

template <typename F>
void over(benchmark::State& state, const std::vector<std::string>& texts, F f) {
    ow_set_log_function(nullptr);
    long hits = 0;
    for (auto _ : state) {
        for (const auto& t : texts) hits += f(t.c_str());
        benchmark::DoNotOptimize(hits);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * texts.size()));
}

void BM_valid_email_address(benchmark::State& state) {
    over(state, data().bare, [](const char* s) { return ow_valid_email_address(s); });
}
void BM_rfc822_email_address(benchmark::State& state) {
    over(state, data().fields, [](const char* s) { return ow_rfc822_email_address(s, nullptr); });
}
// Items are addresses: ten per header.
void BM_parse_addresses_from_header(benchmark::State& state) {
    ow_set_log_function(nullptr);
    long n = 0;
    for (auto _ : state) {
        for (const auto& h : data().headers) {
            ow_list* l = ow_parse_addresses_from_header(h.c_str());
            n += ow_list_count(l);
            ow_destroy_list(&l, std::free);
        }
        benchmark::DoNotOptimize(n);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kCount));
}
void BM_ow_is_ip(benchmark::State& state) {
    over(state, data().ips, [](const char* s) { return ow_is_ip(s) != 0; });
}
void BM_ow_is_unroutable_ip(benchmark::State& state) {
    over(state, data().ips, [](const char* s) { return ow_is_unroutable_ip(s) ? 1 : 0; });
}
BENCHMARK(BM_valid_email_address)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_rfc822_email_address)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_parse_addresses_from_header)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ow_is_ip)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ow_is_unroutable_ip)->Unit(benchmark::kMillisecond);

#ifdef ARDVEX_HAVE_GLIB
void BM_glib_hostname_is_ip_address(benchmark::State& state) {
    over(state, data().ips, [](const char* s) { return g_hostname_is_ip_address(s) ? 1 : 0; });
}
BENCHMARK(BM_glib_hostname_is_ip_address)->Unit(benchmark::kMillisecond);
#endif

#ifdef ARDVEX_HAVE_GIO
// The family of the parsed address, the same question ow_is_ip answers.
void BM_glib_inet_address_family(benchmark::State& state) {
    over(state, data().ips, [](const char* s) {
        GInetAddress* a = g_inet_address_new_from_string(s);
        if (a == nullptr) return 0;
        const int family = g_inet_address_get_family(a) == G_SOCKET_FAMILY_IPV6 ? 10 : 2;
        g_object_unref(a);
        return family;
    });
}
// GLib's nearest equivalent of the private-or-reserved test.
void BM_glib_inet_address_reserved(benchmark::State& state) {
    over(state, data().ips, [](const char* s) {
        GInetAddress* a = g_inet_address_new_from_string(s);
        if (a == nullptr) return 0;
        const bool reserved = g_inet_address_get_is_loopback(a) || g_inet_address_get_is_any(a) ||
                              g_inet_address_get_is_site_local(a) ||
                              g_inet_address_get_is_link_local(a);
        g_object_unref(a);
        return reserved ? 1 : 0;
    });
}
BENCHMARK(BM_glib_inet_address_family)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_glib_inet_address_reserved)->Unit(benchmark::kMillisecond);
#endif

}  // namespace

BENCHMARK_MAIN();
