// ardvex-metrics-client: one run collects the installation's metric set, compares it with
// the set last accepted by the maker's metrics endpoint (the cache file), and only when
// something changed posts it through the transfer tool and, once the endpoint answers 200,
// stores it as the new cache. It reports through the system log and its exit status only.
#include <syslog.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ardvex_config.h"
#include "ax_metric.h"
#include "common_libs.h"
#include "metrics.h"
#include "ow_file.h"
#include "ow_hashmap.h"
#include "ow_internal.hpp"
#include "ow_log.h"

namespace {

constexpr const char* kLogIdentity = "ardvex-metrics-client";
constexpr const char* kTransferOptions = ARDVEX_TRANSFER_OPTIONS;
constexpr int32_t kAccepted = 200;

constexpr const char* kHelp =
    "Usage: ardvex-metrics-client [--help | --version]\n"
    "\n"
    "Collects this installation's metrics and, when they changed since the last accepted\n"
    "post, posts them to the maker's endpoint and caches them. Meant to run once a day from\n"
    "ardvex-metrics-client.timer; it reports only to the system log (facility mail, tag\n"
    "ardvex-metrics-client) and through its exit status: 0 posted or unchanged, 1 failure.\n"
    "\n"
    "  endpoint   " ARDVEX_METRICS_URL
    "\n"
    "  cache      " ARDVEX_METRICS_CACHE
    "\n"
    "  identity   " ARDVEX_CONTROL_DIR
    "{license_key,product_id,server_id}\n"
    "  transfer   " ARDVEX_CURL " " ARDVEX_TRANSFER_OPTIONS
    "\n"
    "\n"
    "Set VERBOSEDEBUG in the environment to log every step. See ardvex-metrics-client(8).\n";

}  // namespace

int main(int argc, char** argv) {
    // Only these two are understood, and they never collect or post anything; any other
    // argument is ignored.
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0) {
            std::fputs(kHelp, stdout);
            return EXIT_SUCCESS;
        }
    }
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--version") == 0) {
            std::puts("ardvex-metrics-client " ARDVEX_VERSION);
            return EXIT_SUCCESS;
        }
    }

    openlog(kLogIdentity, LOG_PID, LOG_MAIL);
    ow_set_log_function(syslog);

    if (!ow_file_executable(ARDVEX_CURL)) {
        OW_ERROR("required %s binary is missing or not executable", ARDVEX_CURL);
        return EXIT_FAILURE;
    }

    ow_hashmap* live = ax_metric_load(metric_table, METRIC_TABLE_COUNT);
    if (live == nullptr) {
        OW_ERROR("failed to load metrics from server");
        return EXIT_FAILURE;
    }

    // A cache that is missing, of another type or unreadable means "never posted": the map
    // layer has said why it could not load it, and the run goes on to post.
    if (ow_file_exists_ex(ARDVEX_METRICS_CACHE, OW_FILE_REGULAR)) {
        ow_hashmap* cache = ow_map_load(ARDVEX_METRICS_CACHE);
        if (cache != nullptr) {
            const bool different = ax_metric_different(live, cache);
            ow_map_destroy(cache);
            if (!different) {
                OW_DEBUG("no difference between the live and cache metrics");
                ow_map_destroy(live);
                return EXIT_SUCCESS;
            }
        }
    }

    char* postdata = ax_metric_build_postdata(live);
    if (postdata == nullptr) {
        OW_DEBUG("failed to build POST data string");
        ow_map_destroy(live);
        return EXIT_FAILURE;
    }
    OW_DEBUG("generated metrics POST data: %s", postdata);

    char* response = nullptr;
    int32_t status = 0;
    const bool sent = fetch_remote_url(ARDVEX_CURL, postdata, kTransferOptions, ARDVEX_METRICS_URL,
                                       &response, &status);
    std::free(postdata);
    if (!sent) {
        // The response then holds the transfer's own failure text, which says no more than
        // this line does.
        OW_ERROR("failed to transmit POST data to metrics server");
        std::free(response);
        ow_map_destroy(live);
        return EXIT_FAILURE;
    }

    if (status != kAccepted) {
        // An answer without a body shows as an empty text after the colon.
        OW_ERROR("received %d response from metrics server: %s", static_cast<int>(status),
                 response != nullptr ? response : "");
        std::free(response);
        ow_map_destroy(live);
        return EXIT_FAILURE;
    }
    std::free(response);

    // The post was accepted whether or not the cache can be written; a cache left behind
    // only makes the next run post again.
    if (!ow_map_save(live, ARDVEX_METRICS_CACHE, true)) {
        OW_ERROR("failed to save metrics to cache");
    }
    ow_map_destroy(live);
    ow_log_info("metrics posted");
    return EXIT_SUCCESS;
}
