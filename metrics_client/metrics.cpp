// metrics: the metric table of the metrics client and its collectors. Most rows are fixed
// facts of this build; one asks the panel-version tool through the suite's secure wrapper,
// one reads the engine's enabled switch, and three read the installation's identity files.
#include "metrics.h"

#include <pcre.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <unistd.h>

#include "ardvex_config.h"
#include "ow_file.h"
#include "ow_internal.hpp"
#include "ow_pipe.h"
#include "ow_stringutils.h"

namespace {

// ---------------------------------------------------------------------------------------
// Fixed values of this build.
constexpr const char* kArdvexVersion = "2.1-12.2";
constexpr const char* kArdvexTier = "ZELT";
constexpr const char* kOperatingSystem = "xenial64";
constexpr const char* kArchitecture = "amd64";
constexpr const char* kMailTransferAgent = "POSTFIX";
constexpr const char* kWebPanel = "ZIMBRA";

// Three or four dot-separated digit groups; the first such run in the tool's line wins.
constexpr const char* kVersionPattern = "(\\d+\\.\\d+\\.\\d+(?:\\.\\d+)?)";

constexpr const char* kLicenseKeyFile = "license_key";
constexpr const char* kProductIdFile = "product_id";
constexpr const char* kServerIdFile = "server_id";
constexpr const char* kEnabledFile = "enabled";

constexpr std::string_view kWhitespace = " \t\n\v\f\r";

bool is_blank(std::string_view s) noexcept { return s.find_first_not_of(kWhitespace) == s.npos; }

// ---------------------------------------------------------------------------------------
// The installation identity source: one file per value in the control directory.

// The whole contents of dir/name, or nullptr when the file is missing, not a regular file,
// unreadable or blank. Only an unreadable file is logged (by the file layer): a missing
// identity is reported once, by the metric set, under the metric's name.
char* read_identity_file(const char* dir, const char* name) noexcept {
    ow::unique_cstr path(__build_path(dir, name));
    if (!path) return nullptr;
    if (!ow_file_exists_ex(path.get(), OW_FILE_REGULAR)) return nullptr;
    ow::unique_cstr contents(ow_file_get_contents_ex(path.get(), nullptr));
    if (!contents || is_blank(contents.get())) return nullptr;
    return contents.release();
}

// The installation key, with the product number stored in *product: the key is nullptr
// when either value is missing, so a caller holding a key always holds a product number.
char* identity_key_and_product(const char* dir, int32_t* product) noexcept {
    ow::unique_cstr key(read_identity_file(dir, kLicenseKeyFile));
    if (!key) return nullptr;
    ow::unique_cstr text(read_identity_file(dir, kProductIdFile));
    if (!text) return nullptr;
    std::string_view digits(text.get());
    digits.remove_prefix(digits.find_first_not_of(kWhitespace));
    digits.remove_suffix(digits.size() - digits.find_last_not_of(kWhitespace) - 1);
    int32_t value = 0;
    const char* end = digits.data() + digits.size();
    auto [stop, ec] = std::from_chars(digits.data(), end, value, 10);
    if (ec != std::errc() || stop != end) {
        ow::unique_cstr path(__build_path(dir, kProductIdFile));
        OW_ERROR("product id in [%s] is not a decimal 32-bit integer",
                 path ? path.get() : kProductIdFile);
        return nullptr;
    }
    *product = value;
    return key.release();
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Helpers of the panel version.

// The reader ow_pipe hands the tool's output to: keeps the first line, line feed included,
// in *(char**)user, or leaves it nullptr. Takes over fd and closes it.
static void __read_line_from_pipe(int fd, void* user) {
    if (fd == -1) return;
    char** line = static_cast<char**>(user);
    FILE* stream = fdopen(fd, "r");
    if (stream == nullptr) {
        OW_ERROR("failed to open read side of pipe: %s", std::strerror(errno));
        close(fd);
        return;
    }
    char* buffer = nullptr;
    std::size_t capacity = 0;
    errno = 0;
    if (getline(&buffer, &capacity, stream) < 0) {
        // End of output sets no error number; say that there was nothing rather than
        // "Success".
        const int err = errno != 0 ? errno : ENODATA;
        OW_ERROR("failed to read from pipe: %s", std::strerror(err));
        std::free(buffer);
        buffer = nullptr;
    }
    *line = buffer;
    std::fclose(stream);
}

// ---------------------------------------------------------------------------------------
// Identity rows.

extern "C" char* metric_license_key(void) { return metric_license_key_ex(ARDVEX_CONTROL_DIR); }

extern "C" char* metric_license_key_ex(const char* control_dir) {
    return read_identity_file(control_dir, kLicenseKeyFile);
}

extern "C" char* metric_product_id(void) { return metric_product_id_ex(ARDVEX_CONTROL_DIR); }

extern "C" char* metric_product_id_ex(const char* control_dir) {
    int32_t product = 0;
    ow::unique_cstr key(identity_key_and_product(control_dir, &product));
    if (!key) return nullptr;
    char* out = nullptr;
    if (ow_asprintf(&out, "%d", static_cast<int>(product)) < 0) return nullptr;  // logged
    return out;
}

extern "C" char* metric_permitted_use_code(void) {
    return metric_permitted_use_code_ex(ARDVEX_CONTROL_DIR);
}

extern "C" char* metric_permitted_use_code_ex(const char* control_dir) {
    char* id = read_identity_file(control_dir, kServerIdFile);
    if (id == nullptr) return nullptr;
    if (!ow_str_replace(&id, "\r", "") || !ow_str_replace(&id, "\n", "")) {
        std::free(id);
        return nullptr;
    }
    return id;
}

// ---------------------------------------------------------------------------------------
// Fixed rows.

extern "C" char* metric_ardvex_version(void) { return ow::dup_cstr(kArdvexVersion); }
extern "C" char* metric_ardvex_tier(void) { return ow::dup_cstr(kArdvexTier); }
extern "C" char* metric_operating_system(void) { return ow::dup_cstr(kOperatingSystem); }
extern "C" char* metric_architecture(void) { return ow::dup_cstr(kArchitecture); }
extern "C" char* metric_mail_transfer_agent(void) { return ow::dup_cstr(kMailTransferAgent); }
extern "C" char* metric_web_panel(void) { return ow::dup_cstr(kWebPanel); }

// ---------------------------------------------------------------------------------------
// Panel version.

extern "C" char* metric_web_panel_version(void) {
    return metric_web_panel_version_ex(ARDVEX_SECURE_WRAPPER, ARDVEX_PANEL_VERSION_TOOL);
}

extern "C" char* metric_web_panel_version_ex(const char* wrapper, const char* tool) {
    char* line = nullptr;
    // The tool's exit code says nothing the output does not: a failing tool prints no
    // version line.
    (void)ow_pipe(wrapper, tool, __read_line_from_pipe, nullptr, &line);
    ow::unique_cstr owned(line);
    if (!owned || owned.get()[0] == '\0') return nullptr;

    const char* error = nullptr;
    int error_offset = 0;
    pcre* re = pcre_compile(kVersionPattern, 0, &error, &error_offset, nullptr);
    if (re == nullptr) {
        OW_ERROR("failed to compile regex: %s", error != nullptr ? error : "");
        return nullptr;
    }
    // Room for the whole match only: a result of 0 means the vector was too small for the
    // group, whose text is the whole match anyway.
    int ovector[3] = {0, 0, 0};
    const int length = static_cast<int>(std::strlen(owned.get()));
    int rc = pcre_exec(re, nullptr, owned.get(), length, 0, 0, ovector, 3);
    pcre_free(re);
    if (rc == PCRE_ERROR_NOMATCH) return owned.release();
    if (rc < 0) {
        OW_ERROR("failed to execute regex");
        return nullptr;
    }
    if (rc == 0) rc = 1;
    const char* match = nullptr;
    if (pcre_get_substring(owned.get(), ovector, rc, 0, &match) < 0) {
        OW_ENOMEM();
        return nullptr;
    }
    char* version = ow::dup_cstr(match);
    pcre_free_substring(match);
    if (version == nullptr) OW_ENOMEM();
    return version;
}

// ---------------------------------------------------------------------------------------
// Enabled switch.

extern "C" bool ardvex_enabled(void) { return ardvex_enabled_ex(ARDVEX_CONTROL_DIR); }

extern "C" bool ardvex_enabled_ex(const char* control_dir) {
    ow::unique_cstr path(__build_path(control_dir, kEnabledFile));
    if (!path) return false;  // logged by __build_path
    if (!ow_file_exists_ex(path.get(), OW_FILE_REGULAR)) return false;
    ow::unique_cstr contents(ow_file_get_contents_ex(path.get(), nullptr));
    if (!contents) return false;
    // Read as strtol does and keep the low 32 bits, as the engine itself reads the switch:
    // " 01" and "1abc" are on, "yes" and 4294967298 are not.
    const long value = std::strtol(contents.get(), nullptr, 10);
    return static_cast<int32_t>(static_cast<uint32_t>(value)) == 1;
}

extern "C" char* metric_ardvex_enabled(void) { return ow::dup_cstr(ardvex_enabled() ? "1" : "0"); }

// ---------------------------------------------------------------------------------------
// The metric table.

namespace {

constexpr ax_metric_record kLicenseKey = {"license_key", "AXLICENSE", metric_license_key};
constexpr ax_metric_record kProductId = {"product_id", "PRODUCTID", metric_product_id};
constexpr ax_metric_record kPermittedUseCode = {"permitted_use_code", "USECODE",
                                                metric_permitted_use_code};
constexpr ax_metric_record kVersion = {"ardvex_version", "AXVER", metric_ardvex_version};
constexpr ax_metric_record kTier = {"ardvex_tier", "AXTIER", metric_ardvex_tier};
constexpr ax_metric_record kOs = {"operating_system", "OS", metric_operating_system};
constexpr ax_metric_record kArch = {"architecture", "ARCH", metric_architecture};
constexpr ax_metric_record kMta = {"mail_transfer_agent", "MTA", metric_mail_transfer_agent};
constexpr ax_metric_record kPanel = {"web_panel", "PANEL", metric_web_panel};
constexpr ax_metric_record kPanelVersion = {"web_panel_version", "PANELVER",
                                            metric_web_panel_version};
constexpr ax_metric_record kEnabled = {"ardvex_enabled", "AXENABLED", metric_ardvex_enabled};

}  // namespace

extern "C" const ax_metric_record* const metric_table[METRIC_TABLE_COUNT] = {
    &kLicenseKey, &kProductId, &kPermittedUseCode, &kVersion, &kTier, &kOs, &kArch,
    &kMta,        &kPanel,     &kPanelVersion,     &kEnabled};
