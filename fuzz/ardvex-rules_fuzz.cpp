// Feeds what a client says (HELO, MAIL FROM, RCPT TO) and what its PTR names are to the
// rules that judge them without asking the DNS. The lines of the input are the HELO, the
// sender, the recipient and then the PTR names. Beyond not crashing: a trimmed word has no
// blank at either end, the sender verdict agrees with the rule's answer, and rdns is one of
// the PTR names.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ardvex-rules.h"
#include "ow_log.h"
#include "owspamrule.h"

namespace {

void quiet(int, const char*, ...) {}

bool blank_ends(const char* s) {
    const std::size_t n = s != nullptr ? std::strlen(s) : 0;
    return n > 0 && (s[0] == ' ' || s[n - 1] == ' ');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ow_set_log_function(quiet);
    std::vector<std::string> fields(1);
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] == '\n') {
            fields.emplace_back();
        } else if (data[i] != '\0') {
            fields.back() += static_cast<char>(data[i]);
        }
    }
    fields.resize(std::max<std::size_t>(fields.size(), 3));
    std::vector<char*> names;
    for (std::size_t i = 3; i < fields.size(); ++i) names.push_back(strdup(fields[i].c_str()));
    names.push_back(nullptr);

    spam_session s{};
    s.ip = const_cast<char*>("192.0.2.1");
    s.routable = true;
    s.helo = strdup(fields[0].c_str());
    s.mail_from = strdup(fields[1].c_str());
    s.rcpt_to = fields[2].data();
    s.ptr_names = names.data();
    s.ptr_state = SPAM_PTR_FOUND;  // names known: no rule asks the DNS

    rule_require_helo(&s);
    rule_valid_helo_domain(&s);
    if (blank_ends(s.helo)) abort();
    const bool malformed = rule_mail_from_strict_addr_parse(&s);
    if (malformed != (s.from_format == SPAM_FROM_MALFORMED)) abort();
    rule_rfc_mail_from(&s);
    if (blank_ends(s.mail_from)) abort();
    rule_block_ip_in_addr(&s);
    rule_require_full_addr(&s);
    rule_block_mail_from_self(&s);
    rule_valid_ptr(&s);
    rule_check_dynamic_reverse_dns_default(&s);
    if (s.rdns != nullptr) {
        bool listed = false;
        for (char** n = s.ptr_names; *n != nullptr; ++n) listed |= s.rdns == *n;
        if (!listed) abort();
    }

    std::free(s.helo);
    std::free(s.mail_from);
    for (char* n : names) std::free(n);
    return 0;
}
