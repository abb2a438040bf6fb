// policy_request.hpp: the Postfix policy delegation protocol on our side: finding where a
// request ends in the bytes of a connection, splitting it into its name=value attributes,
// and framing the answer.
#ifndef ARDVEX_POLICY_REQUEST_HPP
#define ARDVEX_POLICY_REQUEST_HPP

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ow::policy {

// A request's attributes; the views point into the bytes that were parsed and live as long
// as they do.
struct request {
    std::vector<std::pair<std::string_view, std::string_view>> attributes;
    // The value of name, or "" when the request does not carry it (the last one wins when a
    // name repeats).
    std::string_view get(std::string_view name) const noexcept;
};

// Most attributes Postfix sends in one request is about 30; far more is not Postfix.
constexpr size_t kMaxAttributes = 128;

// Where the request at the start of buf ends: the offset just past its terminating empty
// line, or 0 while it is incomplete. body_end receives the length of the attribute lines
// (without the empty line). A lone CR before a line feed is tolerated.
size_t find_request_end(std::string_view buf, size_t& body_end) noexcept;

// Splits the attribute lines of one request (body, without the empty line). False with why
// set for a line without '=', an empty or unusual name, a control byte in a value, or too
// many attributes; out is then incomplete and must not be used.
bool parse_request(std::string_view body, request& out, std::string& why);

// The bytes of an answer: "action=" text and the empty line that ends it.
std::string frame_answer(std::string_view action);

}  // namespace ow::policy

#endif  // ARDVEX_POLICY_REQUEST_HPP
