/* owspamrule.h: the screening engine's two records (the SMTP transaction and the named rule),
 * the fixed rule table and the builder of the rejection text a mail server sends back.
 *
 * Conventions:
 *  1. The caller (the mail-server component) allocates, fills and owns every spam_session.
 *     Rules read it and write only the verdict caches, rdns, ptr_names, and the helo and
 *     mail_from strings, which they may replace (so those two must be malloc'd and owned by
 *     the record). Verdict caches start at 0 for every transaction; 0 means "not asked yet".
 *  2. A rule's check returns true when the rule matches: reject with its notice, or for the
 *     whitelist rules, the transaction is listed. False covers no match, nothing to check and
 *     a failed check alike.
 *  3. Rules are malloc'd records owning their name and notice; free them with free_rule,
 *     which is also the release function for ow_destroy_list on the rule list.
 *  4. Refused arguments write one ERROR line with the system's text for EINVAL, failed
 *     allocations one with the text for ENOMEM (ow_log.h), and the function returns NULL.
 *  5. Field order, types and sizes of both records are the ABI; 8-bit booleans are C bool.
 */
#ifndef OWSPAMRULE_H
#define OWSPAMRULE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "ow_export.h"
#include "ow_list.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Values of the verdict caches. */
#define SPAM_VERDICT_UNCHECKED 0u
/* from_format */
#define SPAM_FROM_WELL_FORMED 1u /* well formed, or empty (a bounce) */
#define SPAM_FROM_MALFORMED 2u
/* helo_dns and from_domain_dns */
#define SPAM_DNS_FOUND 1u /* an A or MX record (or, for the sender, an IP literal) */
#define SPAM_DNS_NXDOMAIN 2u
/* ptr_state */
#define SPAM_PTR_FOUND 1u
#define SPAM_PTR_NXDOMAIN 2u
#define SPAM_PTR_TEMPFAIL 3u

/* One SMTP transaction as the caller sees it. */
typedef struct spam_session {
    char* ip;                 /* client address as text, IPv4 or IPv6; may be NULL */
    char* port;               /* client TCP port as text; may be NULL */
    char* rdns;               /* accepted PTR name: points into ptr_names, not a copy */
    char** ptr_names;         /* all PTR names of ip, NULL-terminated; filled by the first
                                 reverse-DNS rule that needs them; freed with the record */
    char* helo;               /* HELO/EHLO argument, malloc'd (rules may replace it) */
    char* mail_from;          /* MAIL FROM without brackets, malloc'd; "" for a bounce */
    char* rcpt_to;            /* the recipient being judged; %RCPT% and %TO% */
    char* auth_user;          /* SMTP AUTH user name; may be NULL */
    char* country;            /* country code of ip; "**" when not known */
    uint32_t from_format;     /* cache: 0, SPAM_FROM_WELL_FORMED or SPAM_FROM_MALFORMED */
    bool authenticated;       /* the session authenticated (SMTP AUTH) */
    bool tls;                 /* the session runs over TLS */
    uint32_t helo_dns;        /* cache: 0, SPAM_DNS_FOUND or SPAM_DNS_NXDOMAIN */
    uint32_t from_domain_dns; /* cache: 0, SPAM_DNS_FOUND or SPAM_DNS_NXDOMAIN */
    uint32_t ptr_state;       /* cache: 0 or SPAM_PTR_FOUND, _NXDOMAIN, _TEMPFAIL */
    char* list_dir;           /* directory of the list files the list hooks read */
    ow_list* user_log_dirs;   /* per-user log directories (strings); may be NULL */
    bool is_ipv6;             /* the client connected over IPv6 */
    bool auth_exempt;         /* exempt from the IPv6 authentication requirement */
    bool routable;            /* ip is publicly routable; reverse-DNS rules skip others */
} spam_session;

/* A rule's check and the engine's session hooks: true when the session matches. */
typedef bool (*spam_rule_check_fn)(spam_session* session);

/* One named rule. The four flags are the mail-server component's per-rule settings; the
 * engine stores them and never reads them. */
typedef struct spam_rule {
    char* name;                    /* unique in the table; owned */
    spam_rule_check_fn check;      /* NULL when the mail server carries the rule out itself */
    char* notice;                  /* notice template with %IP% %RDNS% %HELO% %FROM% %RCPT% %TO%;
                                      owned, never empty */
    bool user_configurable;        /* a user or domain may switch the rule in their own settings */
    bool enabled_by_default;       /* on where no setting says otherwise */
    bool applies_to_authenticated; /* also judged for authenticated (outgoing) sessions */
    bool applies_to_ipv6;          /* also judged for clients connected over IPv6 */
} spam_rule;

/* Number of rules build_rule_list creates. */
#define SPAM_RULE_COUNT 31

/* A caller's replacement for a rule's notice: called with the rule's name and the session,
 * returns a malloc'd template (which the builder frees) or NULL to keep the rule's own. */
typedef char* (*spam_notice_override_fn)(const char* rule_name, spam_session* session);

/* A new rule with copies of name and notice, or NULL when either is NULL or empty (EINVAL)
 * or on allocation failure (ENOMEM). Free with free_rule. */
OW_API spam_rule* new_rule(const char* name, spam_rule_check_fn check, bool user_configurable,
                           bool enabled_by_default, bool applies_to_authenticated,
                           bool applies_to_ipv6, const char* notice);

/* Frees a spam_rule, its name and its notice; NULL is ignored. Its parameter is untyped so
 * that it is also the release function of ow_destroy_list. */
OW_API void free_rule(void* rule);

/* The strcmp order of the rule's name against name (a NUL-terminated string); -1 when the
 * rule, its name or name is NULL. It has the shape of ow_list_search's comparator, so
 *     ow_list_search(rules, "valid_ptr", sizeof "valid_ptr", rule_name_compare)
 * finds a rule by name; the byte count is ignored, names are compared whole. */
OW_API int rule_name_compare(const void* rule, const void* name, size_t unused);

/* A new list (the head) of the SPAM_RULE_COUNT rules in table order; the list owns the
 * records: destroy it with ow_destroy_list(&head, free_rule). A rule that could not be made
 * is missing and the rest are still built; NULL when none could be appended. */
OW_API ow_list* build_rule_list(void);

/* The text to reject with: the rule's notice (or the override's template) with its macros
 * expanded from the session, followed by ". Protection provided by " and the product banner.
 * %IP% stays literal when ip is NULL; the other macros fall back to "unknown" (%RDNS% first
 * to the first PTR name). override may be NULL. Returns a malloc'd string (free with free()),
 * or NULL when rule, its name or notice, or session is NULL (EINVAL) or on allocation
 * failure. */
OW_API char* build_rejection_notice(const spam_rule* rule, spam_session* session,
                                    spam_notice_override_fn notice_override);

#ifdef __cplusplus
}
#endif

#endif /* OWSPAMRULE_H */
